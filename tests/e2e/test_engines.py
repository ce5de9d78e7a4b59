# SPDX-License-Identifier: Apache-2.0
"""Several container engines at once: each names its containers, and the whitelist holds for all of them."""

import http.server
import itertools
import json
import os
import pathlib
import secrets
import shlex
import socketserver
import subprocess
import tempfile
import threading
import time
import unittest

import cri
import harness
from harness import OPEN, SHOCKER, VIEWS
from test_coverage import ORDER, SHELL, WAYS

DEED = ("self", "call", "getdents64,getdents64,open_by_handle_at")


class SeveralEngines(harness.InDocker):
    images = ("probe:1", "hub/trusted:1")

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.place = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory(prefix="ce-engines.")))
        cls.archive = harness.make_archive(cls.place / "image")
        cls.podman = ("podman", "--root", cls.place / "podman", "--runroot", cls.place / "podman-run", "--storage-driver",
                      "vfs", "--cgroup-manager=cgroupfs", "--events-backend=file")
        cls.sockets = {"docker": cls.engine.socket, "podman": cls.place / "late/podman.sock",
                       "cri": cls.place / "cri/containerd.sock"}

    def start_others(self):
        """Podman's service and containerd, in directories that were not there before."""
        self.sockets["podman"].parent.mkdir()
        service = subprocess.Popen([*map(str, self.podman), "system", "service", "--time", "0",
                                    f"unix://{self.sockets['podman']}"], stderr=subprocess.DEVNULL)
        self.addCleanup(service.wait, harness.PATIENCE)
        self.addCleanup(service.terminate)
        self.sockets["cri"].parent.mkdir()
        containerd = cri.Containerd(self.sockets["cri"].parent)
        self.addCleanup(containerd.close)
        containerd.load(self.archive, self.podman, also="docker.io/hub/trusted:1")
        harness.run(*self.podman, "tag", "docker.io/library/probe:1", "docker.io/hub/trusted:1")
        self.pod = cri.Pod(containerd, "cart")
        self.addCleanup(self.pod.close)

    def attack(self, kind, image):
        """By the first process of a container of that engine. Returns its id and its name."""
        name = f"{kind}-{secrets.token_hex(4)}"
        if kind == "cri":
            return self.pod.run(name, *DEED, image=f"docker.io/{image}")[0], name
        if kind == "podman":
            ids = self.place / name
            harness.run(*self.podman, "--runtime", "runc", "run", *OPEN, "--ulimit", "nofile=1024:1024", "--ulimit", "nproc=1024:1024",
                        "--cidfile", ids, "--name", name, f"docker.io/{image}", *DEED)
            return ids.read_text(), name
        self.engine.docker("run", *OPEN, "--name", name, image.removeprefix("library/"), "/bin/probe", *DEED)
        return self.engine.inspect(name, "{{.Id}}"), name

    def test_all_that_appear_name_their_containers_and_keep_to_the_whitelist(self):
        words = [word for kind, path in self.sockets.items() for word in ("--engine", f"{kind}={path}")]
        policy = harness.policy(whitelist=["trusted:1", "trusted"], scope="container")
        with harness.Agent(policy, *words) as early:
            self.assertIn(f"engine docker={self.sockets['docker']}, 0 containers", early.ready_line)
            self.assertRegex("\n".join(early.log.seen), f"no container engine at {self.sockets['cri']},")
            self.start_others()
            with harness.Agent(policy, *words) as late:
                self.assertIn(", ".join(f"engine {kind}={path}" for kind, path in self.sockets.items()), late.ready_line)
                for kind in (*self.sockets, *self.sockets):
                    self.attack(kind, "hub/trusted:1")
                    container, name = self.attack(kind, "library/probe:1")
                    for agent in (early, late):
                        _, alarm = agent.alarm(patience=5)
                        self.assertEqual((alarm["event_name"], alarm["resource_info"]["container_id"]), (SHOCKER, container))
                        self.assertEqual((alarm["container_name"], alarm["image_name"]), (name, "probe:1"))
                        self.assertRegex(alarm["resource_info"]["image_id"], "^sha256:[0-9a-f]{64}$")
        self.a_wrong_kind_is_named()

    def a_wrong_kind_is_named(self):
        for kind, right in (("docker", "cri"), ("cri", "docker")):
            path = self.sockets[right]
            done = subprocess.run([harness.AGENT, "check", "--json", "--engine", f"{kind}={path}"], capture_output=True,
                                  text=True, check=False)
            answer = json.loads(done.stdout)
            self.assertEqual((done.returncode, answer["engines"]), (1, []), done)
            self.assertRegex(answer["warnings"][0], f"speaks HTTP/[12], not .*; try --engine {right}={path}$")


class Hostile(harness.InDocker):
    # 1.95 MB, of 2 that the kernel allows.
    ARGUMENTS = """a=$(printf 'a\\nb\\377\\033[2J%0129990d' 0)
        exec probe self call unshare "$a" "$a" "$a" "$a" "$a" "$a" "$a" "$a" "$a" "$a" "$a" "$a" "$a" "$a" "$a\""""
    TEXT = "a\nb\x1b[2J\u202e"

    def test_hostile_texts_garble_no_line_and_stay_out_of_memory(self):
        agent = self.agent("--alarm-format", "envelope", calls=["unshare"], scope="container")
        harness.make_root(self.folder / "root")
        self.addCleanup(harness.remove_groups, USER)
        before = agent.memory()
        for number in range(harness.tries(5)):
            self.docker_run(agent)
            for many in (4000, 100_000):
                self.bundle_run(agent, number, many)
        agent.log.wait_for(lambda line: f"{self.folder}/100000-0/config.json: is larger than 1048576 bytes" in line)
        grown = agent.memory() - before
        print(f"\n  memory: {grown:+.1f} MiB")
        self.assertLess(grown, 8)

    def docker_run(self, agent):
        self.engine.docker("run", "--rm", *OPEN, "--label", f"{self.TEXT}={self.TEXT}", "--label", "large=" + "x" * 100_000,
                           "probe:1", "sh", "-c", self.ARGUMENTS)
        told = agent.alarm()[1]
        self.assertEqual(told["container"]["labels"], {self.TEXT: self.TEXT})
        argv = told["process"]["argv"]
        self.assertEqual((argv[:4], argv[4][:3]), (["probe", "self", "call", "unshare"], "a\nb"))
        self.assertLess(sum(map(len, argv)), 10_000)

    def bundle_run(self, agent, number, many):
        """By a runtime alone, whose bundle has that many annotations."""
        container = f"{many}-{number}"
        bundle = harness.bundle(self.folder / container, self.folder / "root", f"/{USER}/of-{container}",
                                ("/bin/probe", "self", "call", "unshare"))
        config = bundle / "config.json"
        described = json.loads(config.read_text())
        described["annotations"] = {f"{self.TEXT}{each}": self.TEXT * 5 for each in range(many)}
        described["annotations"]["io.kubernetes.cri.container-name"] = self.TEXT
        config.write_text(json.dumps(described))
        harness.run("runc", "--root", self.folder / "runc", "run", "-b", bundle, container)
        told = agent.alarm()[1]["container"]
        self.assertEqual((told["id"], told["name"]), (container, self.TEXT if many < 5000 else None))


class StuckEngine(http.server.BaseHTTPRequestHandler):
    """Tells of new containers all the time, and answers no question about any."""
    address_string = "none".__str__

    def do_GET(self):
        self.send_response(200)
        self.end_headers()
        if self.path.startswith("/containers/json"):
            self.wfile.write(b"[]")
            return
        while self.path.startswith("/events"):
            event = {"Type": "container", "Action": "start", "Actor": {"ID": secrets.token_hex(32)}}
            self.wfile.write(json.dumps(event).encode() + b"\n")
            time.sleep(0.05)
        time.sleep(harness.PATIENCE)

    def log_message(self, *words):
        pass


class StuckServer(socketserver.ThreadingUnixStreamServer):
    daemon_threads = True
    block_on_close = False

    def handle_error(self, *_):
        """The agent leaves."""


USER = f"ce-rootless-{os.getpid()}"
# In a control group that is given to the user, as a login manager does.
SERVE = f"""set -e
group=/sys/fs/cgroup/{USER}
mkdir -p $group/own && chown -R {USER} $group && echo $$ >$group/own/cgroup.procs
exec setpriv --reuid={USER} --regid={USER} --init-groups sh -ec "$0"
"""
SESSION = """export HOME={home} XDG_RUNTIME_DIR={home}/run
cd && mkdir -p -m 700 run
podman="podman --storage-driver vfs --cgroup-manager=cgroupfs --events-backend=file"
$podman import -q {archive} localhost/probe:1
$podman system service --time 0 unix://{home}/run/podman.sock &
service=$!
trap 'kill $service $(cat run/libpod/tmp/pause.pid); wait' EXIT
until [ -S run/podman.sock ]; do sleep 0.1; done
start() {{
    $podman --runtime $1 run --network none --security-opt seccomp=unconfined --cap-add SYS_ADMIN --cgroup-parent /{user} \\
        --name $2 $3 probe:1 /bin/probe $4
}}
for runtime in crun runc; do
    mkfifo $runtime.in $runtime.out
    start $runtime $runtime -di serve
    $podman exec -i $runtime {shell} <$runtime.in >$runtime.out &
done
echo ready
while read -r runtime name; do
    start $runtime $name --rm "{deed}"
done
$podman rm -f -t 0 crun runc
"""


class RootlessPodman(unittest.TestCase):
    def test_its_names_are_in_the_alarms_and_its_images_on_no_whitelist(self):
        """What a user tells of his containers must not keep an alarm back."""
        home = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="ce-rootless.")))
        archive = harness.make_archive(home / "image")
        harness.run("useradd", "--home-dir", home, "--no-create-home", USER)
        self.addCleanup(harness.remove_groups, USER)
        self.addCleanup(harness.run, "userdel", USER)
        harness.run("chown", "-R", f"{USER}:", home)
        session = SESSION.format(home=home, archive=archive, user=USER, deed=" ".join(DEED),
                                 shell=shlex.join(SHELL))
        shell = subprocess.Popen([*(VIEWS["v2"] or ("env",)), "sh", "-c", SERVE, session], stdin=subprocess.PIPE,
                                 stdout=subprocess.PIPE, text=True)
        self.addCleanup(shell.wait, harness.PATIENCE)
        self.addCleanup(shell.stdin.close)
        harness.Lines(shell.stdout).wait_for("ready".__eq__)
        servers = {runtime: harness.Piped(home / f"{runtime}.in", home / f"{runtime}.out") for runtime in ("crun", "runc")}
        stuck = self.enterContext(StuckServer(f"{home}/stuck.sock", StuckEngine))
        threading.Thread(target=stuck.serve_forever, daemon=True).start()
        self.addCleanup(stuck.shutdown)
        policy = harness.policy(whitelist=["probe"], scope="container")
        asking = ("--engine", f"podman={home}/run/podman.sock")
        waiting = ("--engine", f"docker={home}/stuck.sock")
        with harness.Agent(policy) as alone, harness.Agent(policy, *asking) as asks, \
                harness.Agent(policy, *waiting) as waits:
            self.assertIn(f"engine {asking[1]}", asks.ready_line)
            def check(name):
                for agent in (alone, asks, waits):
                    _, alarm = agent.alarm(patience=5)
                    self.assertEqual([alarm.get(key) for key in ("event_name", "container_name", "image_name")],
                                     [SHOCKER, name, "localhost/probe:1"], (alarm, agent.log.arrived[-9:]))
                    self.assertRegex(alarm["resource_info"]["image_id"], "^sha256:[0-9a-f]{64}$")
                    agent.reload()  # or the next one of that container would be merged with it

            for number in range(harness.tries(10)):
                for runtime in servers:
                    shell.stdin.write(f"{runtime} web-{runtime}{number}\n")
                    shell.stdin.flush()
                    check(f"web-{runtime}{number}")
            for runtime, how, _ in itertools.product(servers, WAYS, range(harness.tries(5))):
                servers[runtime].do(f"{how} {ORDER}")
                check(runtime)
