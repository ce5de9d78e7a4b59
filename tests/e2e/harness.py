# SPDX-License-Identifier: Apache-2.0
"""What the end-to-end tests are made of: a real container engine, containers, the agent, and the alarms it writes.

Everything started here is ended here, by pid. Times are CLOCK_MONOTONIC nanoseconds, in this process and in the probe.
"""

import atexit
import contextlib
import fcntl
import json
import os
import pathlib
import queue
import re
import shutil
import signal
import subprocess
import tempfile
import threading
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("CE_BUILD_DIR", ROOT / "build/release"))
AGENT = pathlib.Path(os.environ.get("CE_AGENT", BUILD / "bin/containerescape-agent"))
PROBE = BUILD / "tools/probe"
INSTANCES = pathlib.Path("/sys/kernel/tracing/instances")
DOCKER = "/usr/bin/docker" if os.path.exists("/usr/bin/docker") else "docker"

# How long a step may take before it is called broken: far beyond what a busy machine needs.
PATIENCE = 60.0
PERCENT = int(os.environ.get("CE_TRIES_PERCENT", "100"))  # fewer tries, for many runs

# What the detectors call their alarms.
HIGH_RISK = "High-Risk System Invocation"
SHOCKER = "Shocker attack"
BRUTE = "Bruteforce syscall attack"
FILES = "Container file escape attack"
NAMESPACE = "Namespace switch attack"
# The engine mounts this file of the host into every container: its handle opens a file outside the image.
HOST_FILE = "/etc/hostname"
OPEN = ("--network", "none", "--security-opt", "seccomp=unconfined")
# crun serves no mixture of both versions of control groups, so it is shown one of them.
HYBRID = os.path.exists("/sys/fs/cgroup/unified/cgroup.procs")
ALONE = ("unshare", "--mount", "--propagation", "private", "sh", "-c")
VIEWS = {
    "v1": (*ALONE, 'umount /sys/fs/cgroup/unified && exec "$@"', "sh"),
    "v2": (*ALONE, 'mount --bind /sys/fs/cgroup/unified /sys/fs/cgroup && exec "$@"', "sh"),
} if HYBRID else {"v2": ()}
# Alarms of one name are merged while the first of them is at most 2 s old, counted in whole seconds.
MERGE_SECONDS = 3.1


def tries(number):
    return max(2, number * PERCENT // 100)


def run(*command, **options):
    """Runs a command, returns its output without the last newline, raises with its error text when it fails."""
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, timeout=PATIENCE * 3,
                          check=False, **options)
    if done.returncode != 0:
        raise RuntimeError(f"{command} exited with {done.returncode}: {done.stderr.strip()}")
    return done.stdout.rstrip("\n")


def wait_until(condition):
    deadline = time.monotonic() + PATIENCE
    while not condition() and time.monotonic() < deadline:
        time.sleep(0.05)


@contextlib.contextmanager
def alone_on_this_machine():
    """Waits until no other run has an agent: it would see the containers of all. The lock goes with this process, which
    ends what it started when it is told to end, too."""
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    with open("/run/lock/containerescape-e2e.lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        yield


class Lines:
    """The lines of a pipe, each with the time at which it came."""

    def __init__(self, pipe):
        self.queue = queue.Queue()
        self.arrived = []  # all of them with their times
        self.seen = []  # those taken from the queue
        threading.Thread(target=self._read, args=(pipe,), daemon=True).start()

    def _read(self, pipe):
        for line in pipe:
            self.arrived.append((time.monotonic_ns(), line.rstrip("\n")))
            self.queue.put(self.arrived[-1])
        self.queue.put((time.monotonic_ns(), None))

    def wait_for(self, wanted, patience=PATIENCE):
        """The first new line for which `wanted` holds, with its time."""
        deadline = time.monotonic() + patience
        while True:
            try:
                when, line = self.queue.get(timeout=max(0.0, deadline - time.monotonic()))
            except queue.Empty:
                raise AssertionError("no such line in time; the last ones: %s" % self.seen[-12:]) from None
            if line is None:
                self.queue.put((when, None))  # for the next call
                raise AssertionError("the pipe ended; its last lines: %s" % self.seen[-12:])
            self.seen.append(line)
            if wanted(line):
                return when, line

    def rest(self):
        """Everything up to the pipe's end."""
        while (line := self.queue.get(timeout=PATIENCE)[1]) is not None:
            self.seen.append(line)
        return self.seen


def make_root(root):
    """Fills a folder with the files of the image: busybox and the probe."""
    for sub in ("bin", "tmp", "proc", "host", "dev", "sys"):
        (root / sub).mkdir(parents=True)
    shutil.copy("/bin/busybox", root / "bin/busybox")
    shutil.copy(PROBE, root / "bin/probe")
    for applet in ("sh", "ls", "cat", "true", "sleep", "echo", "touch"):
        (root / "bin" / applet).symlink_to("busybox")


def make_archive(folder):
    """The same in a tar file, for engines that import one."""
    make_root(folder / "root")
    return shutil.make_archive(folder / "image", "tar", folder / "root")


class Engine:
    """A Docker Engine of the tests' own."""

    def __init__(self, *options):
        self.dir = pathlib.Path(tempfile.mkdtemp(prefix="ce-engine."))
        self.socket = self.dir / "docker.sock"
        self.options = options
        self.environment = dict(os.environ, DOCKER_HOST=f"unix://{self.socket}")
        atexit.register(self.close)
        run(ROOT / "scripts/engine.sh", "start", self.dir, *options)

    def close(self):
        run(ROOT / "scripts/engine.sh", "stop", self.dir)

    def restart(self):
        run(ROOT / "scripts/engine.sh", "restart", self.dir, *self.options)

    def docker(self, *words):
        return run(DOCKER, *words, env=self.environment)

    def make_image(self, *names):
        """Imports busybox and the probe, and gives the image every one of the names."""
        with tempfile.TemporaryDirectory() as folder:
            self.docker("import", make_archive(pathlib.Path(folder)), names[0])
        for name in names[1:]:
            self.docker("tag", names[0], name)

    def start(self, *words, image="probe:1", command=("sleep", "100000")):
        """Starts a container in the background. Returns its id."""
        return self.docker("run", "-d", *OPEN, *words, image, *command)

    def inspect(self, container, form):
        return self.docker("inspect", "--format", form, container)


class Server:
    """A probe that waits for orders, in a container or on the host: one that the command starts or reaches."""

    def __init__(self, *command, env=None):
        self.process = subprocess.Popen([*map(str, command or (PROBE, "serve"))], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True, env=env)
        self.lines = Lines(self.process.stdout)
        self.do("self call getppid")  # it is known to run from here on

    def do(self, order):
        """Carries out one order. Returns when the deed began and the id of the thread that did it, as the probe saw."""
        self.process.stdin.write(order + "\n")
        self.process.stdin.flush()
        self.lines.wait_for("done".__eq__)
        return made("\n".join(self.lines.seen[-2:]))

    def close(self):
        self.process.stdin.close()
        self.process.wait(PATIENCE)
        self.process.stdout.close()


class Piped(Server):
    """One that is reached by two named pipes."""

    def __init__(self, into, out):
        super().__init__("sh", "-c", f"cat {out} & exec cat >{into}")


class Resident(Piped):
    """The first process of a container as a server, reached by named pipes: it outlives the engine that started it.
    `before`: what a shell does first in the container."""

    def __init__(self, engine, folder, name, *options, before=":", serve="probe serve", **more):
        for pipe in ("in", "out"):
            os.mkfifo(folder / f"{name}.{pipe}")
            (folder / f"{name}.{pipe}").chmod(0o666)  # whichever user it runs as
        self.id = engine.start("--name", name, "-v", f"{folder}:/pipes", *options, **more, command=(
            "sh", "-c", f"{before}; exec {serve} </pipes/{name}.in >/pipes/{name}.out"))
        super().__init__(folder / f"{name}.in", folder / f"{name}.out")


def made(text):
    """From a probe's output: when its deed began, and the id of the thread that did it."""
    return tuple(map(int, re.search(r"^made (\d+) (\d+)$", text, re.M).groups()))


class Agent(contextlib.AbstractContextManager):
    """The agent under test."""

    outputs = []  # of all of them

    def __init__(self, policy, *options, socket=None, prefix=()):
        self.folder = tempfile.TemporaryDirectory()
        self.policy = pathlib.Path(self.folder.name) / "policy.json"
        self.policy.write_text(policy if isinstance(policy, str) else json.dumps(policy))
        command = [*prefix, str(AGENT), "run", "--policy", str(self.policy), *options]
        command += ["--docker-socket", str(socket or "none")]
        self.started = time.monotonic_ns()
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                        errors="surrogateescape")
        atexit.register(self.close)
        self.pid = self.process.pid
        self.output = Lines(self.process.stdout)
        self.outputs.append(self.output)
        self.log = Lines(self.process.stderr)
        self.ready, self.ready_line = self.log.wait_for(lambda line: re.search(r"\bready\b", line))

    def thread(self, name):
        """The id of its thread of that name."""
        return next(int(comm.parent.name) for comm in pathlib.Path(f"/proc/{self.pid}/task").glob("*/comm")
                    if comm.read_text() == f"{name}\n")

    def alarm(self, wanted=lambda document: True, patience=PATIENCE):
        """The next alarm for which `wanted` holds; (time of arrival, document)."""
        when, line = self.output.wait_for(lambda text: wanted(json.loads(text)), patience)
        return when, json.loads(line)

    def alarms(self):
        """Every alarm taken from the output so far."""
        return [json.loads(line) for line in self.output.seen]

    def cpu_seconds(self):
        """What it has used, in the kernel, too."""
        fields = pathlib.Path(f"/proc/{self.pid}/stat").read_text().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def memory(self):
        """What it has resident, in MiB."""
        return int(re.search(r"VmRSS:\s+(\d+)", pathlib.Path(f"/proc/{self.pid}/status").read_text())[1]) / 1024

    def reload(self):
        """Has it read its policy again, and waits until that is in force."""
        self.process.send_signal(signal.SIGHUP)
        self.log.wait_for(lambda line: "policy replaced" in line)

    def stop(self, number=signal.SIGTERM):
        """Stops it as an operator would. Returns its closing counts; afterwards alarms() is complete."""
        begun = time.monotonic()
        self.process.send_signal(number)
        self.output.rest()
        log = self.log.rest()
        self.exit_code = self.process.wait(PATIENCE)
        self.stop_seconds = time.monotonic() - begun
        counts = [line for line in log if "events_read=" in line]
        return {key: int(value) for key, value in re.findall(r"(\w+)=(\d+)", counts[-1])} if counts else None

    def close(self):
        if self.process.poll() is None:
            self.stop()
        self.process.stdout.close()
        self.process.stderr.close()
        self.folder.cleanup()
        atexit.unregister(self.close)

    def __exit__(self, *_):
        self.close()


def unprivileged(user):
    """Before a command: it runs as this user, with what the agent needs. CAP_SYS_NICE stands for the service's limit of
    real-time priority, which cannot be raised on every machine."""
    capabilities = "+sys_admin,+sys_ptrace,+dac_read_search,+dac_override,+sys_nice"
    return ("setpriv", f"--reuid={user}", f"--regid={user}", "--clear-groups", f"--inh-caps={capabilities}",
            f"--ambient-caps={capabilities}", f"--bounding-set=-all,{capabilities}", "--no-new-privs")


def bundle(folder, root, group, words):
    """Fills a new folder with what a runtime needs to run a container in that control group. Returns it."""
    folder.mkdir()
    run("runc", "spec", "-b", folder)
    described = json.loads((folder / "config.json").read_text())
    described["root"] = {"path": str(root), "readonly": True}
    described["process"].update(terminal=False, args=list(words))
    del described["process"]["rlimits"]
    for kind in ("bounding", "effective", "permitted"):
        described["process"]["capabilities"][kind].append("CAP_SYS_ADMIN")
    described["linux"].update(cgroupsPath=group, resources={})
    (folder / "config.json").write_text(json.dumps(described))
    return folder


# Debian's library is for its own interpreter. Prints what is wrong with each document.
VALIDATE = """import json, jsonschema, pathlib, sys
schema = pathlib.Path(sys.argv[1])
text = json.loads(schema.read_text())
validator = jsonschema.Draft7Validator(text, resolver=jsonschema.RefResolver(schema.as_uri(), text))
for document in json.load(sys.stdin):
    for error in validator.iter_errors(document):
        print(error.message, document)"""


def faults(schema, documents):
    """What is wrong with documents by a JSON Schema, a file of packaging/, as texts."""
    return run("/usr/bin/python3", "-c", VALIDATE, ROOT / "packaging" / schema, input=json.dumps(documents)).splitlines()


def policy(calls=(), directories=(), whitelist=(), scope=None):
    return {"content": {"image_white_namelist": list(whitelist),
                        "container_escape_detect_task": {"highrisk_calls": list(calls),
                                                         "host_directorys": list(directories),
                                                         **({"scope": scope} if scope else {})}}}


def named(name):
    """For Agent.alarm: an alarm of that name."""
    return lambda document: document["event_name"] == name


def is_call(name):
    """For Agent.alarm: a high-risk alarm of that call."""
    return lambda document: document.get("forensic_info", {}).get("sys_call") == name


def inside(wanted):
    """For Agent.alarm: the same in an envelope."""
    return lambda envelope: wanted(envelope["alarm"])


def host_pid(container_pid, command):
    """The host's id of a process that its own pid namespace numbers `container_pid` and whose command name is known."""
    for status in pathlib.Path("/proc").glob("[0-9]*/status"):
        with contextlib.suppress(OSError):
            text = status.read_text()
            if f"Name:\t{command}\n" in text and re.search(rf"^NSpid:\t\d+(\t\d+)*\t{container_pid}$", text, re.M):
                return int(status.parent.name)
    raise AssertionError(f"no process {container_pid} named {command}")


def instances():
    """The agent's tracefs instances that exist now."""
    return sorted(path.name for path in INSTANCES.glob("containerescape-agent-*"))


def remove_groups(name):
    """Removes the control groups of that name with those below them, which are empty, in every hierarchy."""
    for group in sorted(pathlib.Path("/sys/fs/cgroup").glob(f"**/{name}/**/"), reverse=True):
        group.rmdir()


class InDocker(unittest.TestCase):
    """Tests with an engine of their own for the whole class, and a folder of the host that containers can mount."""

    engine_options = ()
    images = ("probe:1",)

    @classmethod
    def setUpClass(cls):
        cls.engine = Engine(*cls.engine_options)
        cls.addClassCleanup(cls.engine.close)
        cls.engine.make_image(*cls.images)
        cls.folder = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory(prefix="ce-watched.")))

    def start(self, *words, **more):
        """A container that is removed after the test."""
        container = self.engine.start(*words, **more)
        self.addCleanup(self.engine.docker, "rm", "-f", container)
        return container

    def agent(self, *options, calls=(), directories=(), whitelist=(), scope=None, **more):
        """An agent that follows the engine, and is stopped after the test or a "with" at the latest."""
        more.setdefault("socket", self.engine.socket)
        running = Agent(policy(calls, directories, whitelist, scope), *options, **more)
        self.addCleanup(running.close)
        return running

    def server(self, container="victim", command=("probe", "serve")):
        server = Server(DOCKER, "exec", "-i", container, *command, env=self.engine.environment)
        self.addCleanup(server.close)
        return server

    def attack(self, *words, container="victim"):
        """Returns when the deed began and the id of the thread that did it."""
        return made(self.engine.docker("exec", container, "probe", *words))
