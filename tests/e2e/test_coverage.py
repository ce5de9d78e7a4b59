# SPDX-License-Identifier: Apache-2.0
"""Whatever way a process comes to run in a container, its first calls are seen, even when it ends at once after them.

Each way is tried fifty times. Two agents watch. One has its policy reloaded before each try, since that opens the gates
which would hold back the alarms of the later tries. The other runs on undisturbed, as one that has been running for
long; its log shows every alarm that it finds, those that are merged with earlier ones, too. Both must find each attack,
with the right container, and nothing else, although the policy lists the calls that engines and runtimes make.
"""

import concurrent.futures
import itertools
import json
import os
import pathlib
import secrets
import statistics
import subprocess
import tempfile
import time
import unittest

import harness
from harness import HIGH_RISK, OPEN, SHOCKER

TRIES = 50

# Those that set a container up, and one that only the probe makes.
CALLS = ("mount", "umount2", "pivot_root", "chroot", "setns", "unshare", "keyctl", "ptrace", "bpf", "process_vm_readv")
# All three calls have to be seen for the alarm.
DEED = ("call", "getdents64,getdents64,open_by_handle_at")
ORDER = " ".join(DEED)
ATTACK = ("probe", "self", *DEED)

# The control groups of the containers that no engine names; also a name space of containerd's.
GROUPS = f"ce-coverage-{os.getpid()}"
# crun serves no mixture of both versions of control groups, so it is shown one of them.
HYBRID = os.path.exists("/sys/fs/cgroup/unified/cgroup.procs")
ALONE = ("unshare", "--mount", "--propagation", "private", "sh", "-c")
VIEWS = {
    "v1": (*ALONE, 'umount /sys/fs/cgroup/unified && exec "$@"', "sh"),
    "v2": (*ALONE, 'mount --bind /sys/fs/cgroup/unified /sys/fs/cgroup && exec "$@"', "sh"),
} if HYBRID else {"v2": ()}


def identity_in(alarm):
    """Whose an alarm says it is."""
    return alarm["resource_info"] | {key: alarm[key] for key in ("container_name", "image_name") if key in alarm}


def found(line):
    """The alarm that a line of the log at level debug tells of; None for other lines."""
    _, is_one, text = line.partition("Alert msgid='2' msg='")
    return json.JSONDecoder().raw_decode(text)[0] if is_one else None


class Way:
    """The tries of one way, and which of them were noticed."""

    def __init__(self, name):
        self.name, self.tries, self.latencies, self.missed = name, 0, [], []

    def expect(self, wait, begun, container, event=SHOCKER):
        """An alarm has to come from `wait`, and to say this of its container."""
        try:
            arrived, alarm = wait(patience=1 if self.missed else 5)
        except AssertionError:
            self.missed.append((self.tries, wait.__name__))
            return
        if isinstance(alarm, str):
            alarm = found(alarm)
        seen = (alarm["event_name"], identity_in(alarm))
        assert seen == (event, container), f"{self.name}: {seen} instead of {(event, container)}"
        self.latencies.append((arrived - begun) / 1e6)

    def close(self):
        print(f"\n  {self.name}: {self.tries} tries, {len(self.latencies)} alarms; latency median "
              f"{statistics.median(self.latencies or [0]):.1f} ms, maximum {max(self.latencies, default=0):.1f} ms",
              end="", flush=True)
        assert self.tries == TRIES and not self.missed, f"{self.name}: missed {self.missed}"


class Watched(unittest.TestCase):
    """Has both agents watch, from a class's beginning to its end. Nothing but the attacks may have raised an alarm by
    then, neither the engine and the runtimes nor the same calls of the host's processes."""

    socket = None
    expected = 0  # alarms of each agent

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.fresh = cls.watcher()
        cls.steady = cls.watcher("--log-level", "debug")

    @classmethod
    def tearDownClass(cls):
        for how in ("self", "fork", "thread", "vfork"):
            harness.run(harness.PROBE, how, *DEED)
        for agent in (cls.fresh, cls.steady):
            agent.stop()
        cls.check([line for line in map(found, cls.steady.log.seen) if line])
        cls.check_delivered(cls.fresh.alarms())

    @classmethod
    def check(cls, alarms):
        assert len(alarms) == cls.expected, f"{len(alarms)} instead of {cls.expected}: {alarms[-3:]}"

    check_delivered = check

    @classmethod
    def watcher(cls, *options):
        agent = harness.Agent(harness.policy(CALLS), *options, socket=cls.socket)
        cls.addClassCleanup(agent.close)
        return agent

    def try_way(self, name, *attacks):
        """Makes the attacks in turn. Each returns what the probe said of it, and what an alarm has to say about the
        container."""
        def steady_agent(patience):
            return self.steady.log.wait_for(found, patience)

        way, steady = Way(name), Way(name)
        for attack, _ in zip(itertools.cycle(attacks), range(TRIES)):
            self.fresh.reload()
            (begun, _), container = attack()
            way.tries += 1
            way.expect(self.fresh.alarm, begun, container)
            steady.expect(steady_agent, begun, container)
        way.missed += steady.missed
        way.close()
        type(self).expected += TRIES


class Containers(harness.InDocker):
    """What those have in common whose containers an engine knows."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.socket = cls.engine.socket
        cls.image_id = cls.engine.docker("image", "inspect", "--format", "{{.Id}}", "probe:1")

    def known(self, name, container=None):
        """What an alarm has to say about a container."""
        return {"container_id": container or self.engine.inspect(name, "{{.Id}}"), "container_name": name,
                "image_name": "probe:1", "image_id": self.image_id}

    def docker(self, *words):
        return harness.made(self.engine.docker(*words))

    def served(self, kind, *prefix):
        server = kind(harness.DOCKER, *prefix, env=self.engine.environment)
        self.addCleanup(server.close)
        return server

    def first_process(self, numbers=itertools.count()):
        """Makes the attack the only process of a new container."""
        name = f"first{next(numbers)}"
        note = self.folder / name
        made = self.docker("run", "--rm", *OPEN, "--name", name, "--cidfile", note, "probe:1", *ATTACK)
        return made, self.known(name, note.read_text())

    def deed_of(self, name, after):
        """What the probe says of its deed when a container starts that makes it as its first."""
        deadline = time.monotonic() + harness.PATIENCE
        while time.monotonic() < deadline:
            made = self.docker("logs", "--tail", "2", name)
            if made is not None and made[0] > after:
                return made
            time.sleep(0.01)
        raise AssertionError(f"{name} did not attack")


class RunningContainers(Watched, Containers):
    def test_every_way_into_a_container(self):
        self.engine.start("-i", "--name", "victim", "--cap-add", "SYS_ADMIN", command=("probe", "serve"))
        victim = self.known("victim")
        self.engine.docker("create", "-i", *OPEN, "--name", "again", "probe:1", "probe", "serve", *ATTACK[1:])
        again = self.known("again")
        shell = self.served(harness.Shell, "exec", "-i", "victim")

        def restart():
            before = time.monotonic_ns()
            self.engine.docker("restart", "-t", "0", "again")
            return self.deed_of("again", before), again

        self.try_way("the first process of docker run", self.first_process)
        self.try_way("docker exec", lambda: (self.docker("exec", "victim", *ATTACK), victim))
        # As an image's health check may be called: by the name under which runtimes execute themselves.
        self.try_way("docker exec under a runtime's name",
                     lambda: (self.docker("exec", "victim", "/proc/1/exe", *ATTACK[1:]), victim))
        self.try_way("a shell forks and execs", lambda: (shell.do(f"self {ORDER}"), victim))
        for how, name in {"fork": "fork alone", "daemon": "double fork with setsid", "thread": "thread",
                          "vfork": "vfork and exec", "namespaces": "clone with new namespaces"}.items():
            self.try_way(name, lambda how=how: (shell.do(f"{how} {ORDER}"), victim))
        self.try_way("exec in place",
                     lambda: (self.docker("exec", "victim", "sh", "-c", f"exec probe self {ORDER}"), victim))
        self.try_way("docker restart", restart)


class YoungAgents(Containers):
    """Agents of their own, which are not reloaded: alarms of two names from each, one for each of two attacks."""

    def both(self, agent, way, servers, orders, containers):
        for server, order, container, event in zip(servers, orders, containers, (SHOCKER, HIGH_RISK)):
            way.tries += 1
            way.expect(agent.alarm, server.do(order)[0], container, event)
        agent.stop()
        self.assertEqual(len(agent.alarms()), len(servers))

    def test_a_container_that_ran_before_the_agent(self):
        self.engine.start("--name", "before", "--cap-add", "SYS_ADMIN")
        for how, deed in {"self": "acts", "exec": "execs"}.items():
            server = self.served(harness.Server, "exec", "-i", "before")
            way = Way(f"a process from before the agent {deed}")
            for _ in range(TRIES // 2):
                with self.agent(calls=CALLS) as agent:
                    self.both(agent, way, [server] * 2, (f"{how} {ORDER}", f"{how} call process_vm_readv"),
                              [self.known("before")] * 2)
            way.close()

    def test_containers_that_start_while_the_agent_does(self):
        names = ("while1", "while2")
        for name in names:
            self.engine.docker("create", "-i", *OPEN, "--name", name, "probe:1", "probe", "serve")
        containers = [self.known(name) for name in names]
        way = Way("containers that start while the agent does")
        for number in range(TRIES // 2):
            with concurrent.futures.ThreadPoolExecutor() as pool:
                starts = [pool.submit(harness.Attached, harness.DOCKER, "start", "-ai", name,
                                      env=self.engine.environment) for name in names]
                time.sleep(number * 0.03)  # from long before their first processes to long after these
                with self.agent(calls=CALLS) as agent:
                    servers = [start.result() for start in starts]
                    self.both(agent, way, servers, (f"self {ORDER}", "self call process_vm_readv"), containers)
            for server in servers:
                server.close()
        way.close()


class ContainersLiveOn(Watched, Containers):
    engine_options = ("--live-restore",)

    def test_the_engine_restarts_under_its_containers(self):
        residents = [self.resident(f"lives{number}") for number in range(5)]
        self.engine.restart()

        def act(server, container):
            return server.do(f"fork {ORDER}"), container

        def join(_, container):
            return self.docker("exec", container["container_name"], *ATTACK), container

        attacks = [lambda way=way, resident=resident: way(*resident) for resident in residents for way in (act, join)]
        self.try_way("containers that live on when the engine restarts", *attacks)

    def resident(self, name):
        folder = self.folder / name
        folder.mkdir()
        server = harness.Resident(folder, lambda: self.engine.start("--name", name, "-v", f"{folder}:/host",
                                                                    command=harness.Resident.program))
        self.addCleanup(server.close)
        return server, self.known(name)


class ContainersStartAgain(Watched, Containers):
    def test_the_engine_restarts_its_containers(self):
        """They all attack at once, so that one alarm stands for several: the log has each."""
        names = [f"always{number}" for number in range(10)]
        for name in names:
            self.engine.docker("create", "-i", *OPEN, "--restart", "always", "--stop-timeout", "1", "--name", name,
                               "probe:1", "probe", "serve", *ATTACK[1:])
        containers = {self.known(name)["container_id"]: self.known(name) for name in names}
        self.expect_each(Way("started by hand"), containers, lambda: self.engine.docker("start", *names))
        way = Way("containers that start again when the engine does")
        for _ in range(TRIES // len(names)):
            self.expect_each(way, containers, self.engine.restart)
        way.close()
        type(self).expected += TRIES + len(names)

    @classmethod
    def check_delivered(cls, alarms):
        assert 0 < len(alarms) < cls.expected

    def expect_each(self, way, containers, start):
        before = time.monotonic_ns()
        start()
        left = dict(containers)
        while left:
            seen = self.steady.log.wait_for(found)
            container = left.pop(found(seen[1])["resource_info"]["container_id"])
            begun, _ = self.deed_of(container["container_name"], before)
            way.tries += 1
            way.expect(lambda patience, seen=seen: seen, begun, container)


class WithoutEngine(Watched):
    """Runtimes alone, and engines that the agent does not ask: an alarm has the id only."""

    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory(prefix="ce-coverage.")))
        harness.make_root(cls.folder / "root")
        cls.addClassCleanup(cls.remove_groups)
        super().setUpClass()

    @classmethod
    def remove_groups(cls):
        for group in sorted(pathlib.Path("/sys/fs/cgroup").glob(f"**/{GROUPS}/**/"), reverse=True):
            group.rmdir()

    def both(self, name, run, join, id_of=lambda container: container):
        """Attacks by the first process of a container and by one that is started in it later."""

        def first():
            container = secrets.token_hex(32)
            made = harness.made(harness.run(*run(container, *ATTACK)))
            return made, {"container_id": id_of(container)}

        self.try_way(f"{name}: first process", first)
        container = secrets.token_hex(32)
        server = harness.Attached(*run(container, "probe", "serve"))
        self.addCleanup(server.close)
        self.try_way(f"{name}: started in it later", lambda: (harness.made(harness.run(*join(container, *ATTACK))),
                                                               {"container_id": id_of(container)}))

    def test_runtimes(self):
        for name, command in {"runc": ("runc",), **{f"crun, {view}": (*VIEWS[view], "crun") for view in VIEWS}}.items():
            command = (*command, "--root", self.folder / name)
            self.both(name, lambda container, *words, command=command: (
                *command, "run", "-b", self.bundle(container, words), container),
                      lambda container, *words, command=command: (*command, "exec", container, *words))

    def bundle(self, container, words):
        folder = self.folder / container
        folder.mkdir()
        harness.run("runc", "spec", "-b", folder)
        described = json.loads((folder / "config.json").read_text())
        described["root"] = {"path": str(self.folder / "root"), "readonly": True}
        described["process"].update(terminal=False, args=list(words))
        del described["process"]["rlimits"]
        described["linux"].update(cgroupsPath=f"/{GROUPS}/{container}", resources={})
        (folder / "config.json").write_text(json.dumps(described))
        return folder

    def test_podman(self):
        archive = harness.make_archive(self.folder / "image")
        for runtime, view in {"runc": (), "crun": VIEWS["v1" if HYBRID else "v2"]}.items():
            home = self.folder / f"podman-{runtime}"
            podman = (*view, "podman", "--root", home / "root", "--runroot", home / "run", "--cgroup-manager=cgroupfs",
                      "--runtime", runtime, "--storage-driver", "vfs", "--events-backend=file")
            harness.run(*podman, "import", archive, "probe:1")

            def run(container, *words, podman=podman):
                return (*podman, "run", "--rm", "-i", *OPEN, "--ulimit", "nofile=1024:1024", "--ulimit",
                        "nproc=1024:1024", "--cgroup-parent", f"/{GROUPS}", "--cidfile", self.folder / container,
                        "--name", container, "probe:1", *words)

            self.both(f"podman, {runtime}", run,
                      lambda container, *words, podman=podman: (*podman, "exec", container, *words),
                      lambda container: (self.folder / container).read_text())

    def test_containerd(self):
        socket = self.folder / "containerd.sock"
        settings = self.folder / "containerd.toml"
        settings.write_text(f'''version = 2
root = "{self.folder}/containerd"
state = "{self.folder}/containerd-state"
disabled_plugins = ["io.containerd.grpc.v1.cri"]
[grpc]
  address = "{socket}"
''')
        daemon = subprocess.Popen(["containerd", "-c", settings], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(daemon.wait, harness.PATIENCE)
        self.addCleanup(daemon.terminate)
        ctr = ("ctr", "-a", socket, "-n", GROUPS)
        numbers = itertools.count()
        self.both("containerd", lambda container, *words: (
            *ctr, "run", "--rm", "--rootfs", self.folder / "root", container, f"/bin/{words[0]}", *words[1:]),
                  lambda container, *words: (*ctr, "tasks", "exec", "--exec-id", f"e{next(numbers)}", container,
                                             f"/bin/{words[0]}", *words[1:]))
