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

import cri
import harness
from harness import HIGH_RISK, HYBRID, OPEN, SHOCKER, VIEWS

TRIES = harness.tries(50)
NOTICED = 5  # seconds in which an alarm has to come

# Those that set a container up, and one that only the probe makes.
CALLS = ("mount", "umount2", "pivot_root", "chroot", "setns", "unshare", "keyctl", "ptrace", "bpf", "process_vm_readv")
# All three calls have to be seen for the alarm.
DEED = ("call", "getdents64,getdents64,open_by_handle_at")
ORDER = " ".join(DEED)
ATTACK = ("/bin/probe", "self", *DEED)

# How the probe does it, told by a shell in the container.
WAYS = {"self": "a shell forks and execs", "fork": "fork alone", "daemon": "double fork with setsid", "thread": "thread",
        "vfork": "vfork and exec", "namespaces": "clone with new namespaces"}

# Does that, in a container.
SHELL = ("/bin/sh", "-c", "while read -r order; do probe $order; echo done; done")

# The control groups of the containers that no engine names; also a name space of containerd's.
GROUPS = f"ce-coverage-{os.getpid()}"


def identity_in(alarm):
    """Whose an alarm says it is."""
    return alarm["resource_info"] | {key: alarm[key] for key in ("container_name", "image_name") if key in alarm}


def found(line):
    """The alarm that a line of the log at level debug tells of; None for other lines."""
    _, is_one, text = line.partition("Alert msgid='2' msg='")
    return json.JSONDecoder().raw_decode(text)[0] if is_one else None


def latency(seen, begun, container, event=SHOCKER):
    """Milliseconds from the deed to the alarm, which has to say this of its container."""
    arrived, alarm = seen
    assert (alarm["event_name"], identity_in(alarm)) == (event, container), f"{alarm} instead of {event} in {container}"
    return (arrived - begun) / 1e6


def report(name, latencies):
    print(f"\n  {name}: {len(latencies)} tries, latency median {statistics.median(latencies):.1f} ms, "
          f"maximum {max(latencies):.1f} ms", end="", flush=True)


class Watched(unittest.TestCase):
    """Has both agents watch, from a class's beginning to its end. Nothing but the attacks may have raised an alarm by
    then, neither the engine and the runtimes nor the same calls of the host's processes."""

    engine = None
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
        for alarms in (cls.fresh.alarms(), [*filter(None, map(found, cls.steady.log.seen))]):
            assert len(alarms) == cls.expected, f"{len(alarms)} instead of {cls.expected}: {alarms[-3:]}"

    @classmethod
    def watcher(cls, *options):
        return cls.enterClassContext(harness.Agent(harness.policy(CALLS), *options,
                                                   socket=cls.engine and cls.engine.socket))

    def known_without_engine(self, container, seen):
        """What the log has to say: names from a bundle may join an alarm on its way out."""
        return container if "container_name" in seen else {"container_id": container["container_id"]}

    def try_from(self, shell, name, container, tries=TRIES):
        """Every way that begins with a shell in the container."""
        for how, way in WAYS.items():
            self.try_way(name + way, lambda how=how: (shell.do(f"{how} {ORDER}"), container), tries=tries)

    def try_way(self, name, *attacks, tries=TRIES):
        """Makes the attacks in turn. Each returns what the probe said of it, and what an alarm has to say about the
        container."""
        latencies = []
        with self.subTest(way=name):
            for attack, _ in zip(itertools.cycle(attacks), range(tries)):
                self.fresh.reload()
                (begun, _), container = attack()
                type(self).expected += 1
                latencies.append(latency(self.fresh.alarm(patience=NOTICED), begun, container))
                arrived, line = self.steady.log.wait_for(found, NOTICED)
                seen = found(line)
                latency((arrived, seen), begun, container if self.engine else self.known_without_engine(container, seen))
            report(name, latencies)


class Containers(harness.InDocker):
    """What those have in common whose containers an engine knows."""

    def known(self, name):
        """What an alarm has to say about a container."""
        container, image = self.engine.inspect(name, "{{.Id}} {{.Image}}").split()
        return {"container_id": container, "container_name": name, "image_name": "probe:1", "image_id": image}

    def create(self, name, *words):
        self.engine.docker("create", "-i", *OPEN, "--name", name, *words)
        return self.known(name)

    def docker(self, *words):
        return harness.made(self.engine.docker(*words))


class RunningContainers(Watched, Containers):
    engine_options = ("--live-restore",)

    def test_every_way_into_a_container(self):
        self.engine.start("-i", "--name", "victim", "--cap-add", "SYS_ADMIN", command=("probe", "serve"))
        victim = self.known("victim")
        again = self.create("again", "probe:1", "probe", "serve", *ATTACK[1:])
        shell = self.server(command=SHELL)

        def first_process():
            name = f"first-{secrets.token_hex(4)}"
            return self.docker("run", *OPEN, "--name", name, "probe:1", *ATTACK), self.known(name)

        def restart():
            begun = time.monotonic_ns()
            self.engine.docker("restart", "-t", "0", "again")
            return (begun, None), again

        self.try_way("the first process of docker run", first_process)
        self.try_way("docker exec", lambda: (self.docker("exec", "victim", *ATTACK), victim))
        # As an image's health check may be called: by the name under which runtimes execute themselves.
        self.try_way("docker exec under a runtime's name",
                     lambda: (self.docker("exec", "victim", "/proc/1/exe", *ATTACK[1:]), victim))
        self.try_from(shell, "", victim)
        self.try_way("exec in place",
                     lambda: (self.docker("exec", "victim", "sh", "-c", f"exec probe self {ORDER}"), victim))
        self.try_way("docker restart, from its beginning", restart)

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
        server = harness.Resident(self.engine, self.folder, name)
        self.addCleanup(server.close)
        return server, self.known(name)


class OtherAgents(Containers):
    """Agents that are not reloaded. A young one gets two attacks, of which each has an alarm of its own name."""

    def both(self, agent, how, servers, containers):
        for server, deed, container, event in zip(servers, (ORDER, "call process_vm_readv"), containers,
                                                  (SHOCKER, HIGH_RISK)):
            begun, _ = server.do(f"{how} {deed}")
            yield latency(agent.alarm(patience=NOTICED), begun, container, event)
        agent.stop()
        self.assertEqual(len(agent.alarms()), len(containers))

    def test_a_container_that_ran_before_the_agent(self):
        self.engine.start("--name", "before", "--cap-add", "SYS_ADMIN")
        for how, deed in {"self": "acts", "exec": "execs"}.items():
            server, latencies = self.server("before"), []
            for _ in range(TRIES // 2):
                with self.agent(calls=CALLS) as agent:
                    latencies += self.both(agent, how, [server] * 2, [self.known("before")] * 2)
            report(f"a process from before the agent {deed}", latencies)

    def test_containers_that_start_while_the_agent_does(self):
        containers = [self.create(name, "probe:1", "probe", "serve") for name in ("while1", "while2")]
        latencies = []
        for number in range(TRIES // 2):
            with concurrent.futures.ThreadPoolExecutor() as pool:
                starts = [pool.submit(harness.Server, harness.DOCKER, "start", "-ai", container["container_name"],
                                      env=self.engine.environment) for container in containers]
                time.sleep(number * 0.03)  # from long before their first processes to long after these
                with self.agent(calls=CALLS) as agent:
                    servers = [start.result() for start in starts]
                    latencies += self.both(agent, "self", servers, containers)
            for server in servers:
                server.close()
        report("containers that start while the agent does", latencies)

    def test_the_engine_restarts_its_containers(self):
        """They all attack at once, so that one alarm stands for several: the log has each."""
        containers = [self.create(f"always{number}", "--restart", "always", "--stop-timeout", "1", "probe:1", "probe",
                                  "serve", *ATTACK[1:]) for number in range(10)]
        names = [container["container_name"] for container in containers]
        starts = [lambda: self.engine.docker("start", *names)] + [self.engine.restart] * (TRIES // len(names))
        agent = self.agent("--log-level", "debug", calls=CALLS)
        for start in starts:
            start()
            seen = [identity_in(found(agent.log.wait_for(found)[1])) for _ in containers]
            self.assertCountEqual(seen, containers)
        agent.stop()
        self.assertEqual(sum(found(line) is not None for line in agent.log.seen), len(starts) * len(containers))
        self.assertIn(len(agent.alarms()), range(1, len(starts) * len(containers)))
        print(f"\n  containers that start again when the engine does: {len(starts) * len(containers)} tries")


class WithoutEngine(Watched):
    """Runtimes alone, and engines that the agent does not ask. What they keep beside a container names it, or nothing."""

    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory(prefix="ce-coverage.")))
        harness.make_root(cls.folder / "root")
        cls.addClassCleanup(harness.remove_groups, GROUPS)
        super().setUpClass()

    @staticmethod
    def named_by_id(container):
        """What an alarm has to say about a container whose name, if it was given one, is its id."""
        names = {} if len(container) == 64 else {"container_name": container, "image_name": "", "image_id": ""}
        return {"container_id": container} | names

    def both(self, name, run, join, identity_of=named_by_id):
        """Attacks by the first process of a container and by one that is started in it later. Its group is named by an
        engine's id or, every second time, as people name containers."""
        names = itertools.cycle((lambda: secrets.token_hex(32), lambda: f"web-{secrets.token_hex(4)}"))

        def first():
            container = next(names)()
            made = harness.made(harness.run(*run(container, *ATTACK)))
            return made, identity_of(container)

        self.try_way(f"{name}: first process", first)
        container = f"later-{secrets.token_hex(4)}"
        server = harness.Server(*run(container, "/bin/probe", "serve"))
        self.addCleanup(server.close)
        # A call that the other agents do not watch.
        with harness.Agent(harness.policy(["mknodat"]), "--alarm-format", "envelope") as late:
            begun, _ = server.do("self call mknodat")
            arrived, envelope = late.alarm(patience=NOTICED)
            report(f"{name}: older than the agent", [latency((arrived, envelope["alarm"]), begun, identity_of(container),
                                                             HIGH_RISK)])
            self.assertEqual(envelope["process"]["argv"], ["/bin/probe", "serve"])
            self.assertEqual(envelope["container"]["name"], identity_of(container).get("container_name"))
        self.try_way(f"{name}: started in it later", lambda: (harness.made(harness.run(*join(container, *ATTACK))),
                                                               identity_of(container)))
        shell = harness.Server(*join(container, *SHELL))
        self.addCleanup(shell.close)
        self.try_from(shell, f"{name}: ", identity_of(container), TRIES // 5)

    def test_runtimes(self):
        for name, command in {"runc": ("runc",), **{f"crun, {view}": (*VIEWS[view], "crun") for view in VIEWS}}.items():
            command = (*command, "--root", self.folder / name)
            self.both(name, lambda container, *words, command=command: (
                *command, "run", "-b", harness.bundle(
                    self.folder / container, self.folder / "root", f"/{GROUPS}/of-{container}", words), container),
                      lambda container, *words, command=command: (*command, "exec", container, *words))

    def test_podman(self):
        archive = harness.make_archive(self.folder / "image")
        for runtime, view in {"runc": (), "crun": VIEWS["v1" if HYBRID else "v2"]}.items():
            home = self.folder / f"podman-{runtime}"
            podman = (*view, "podman", "--root", home / "root", "--runroot", home / "run", "--cgroup-manager=cgroupfs",
                      "--runtime", runtime, "--storage-driver", "vfs", "--events-backend=file")
            harness.run(*podman, "import", archive, "probe:1")
            image = harness.run(*podman, "image", "inspect", "probe:1", "--format", "{{.Id}}")

            def run(container, *words, podman=podman):
                return (*podman, "run", "--rm", "-i", *OPEN, "--cap-add", "SYS_ADMIN", "--ulimit", "nofile=1024:1024", "--ulimit",
                        "nproc=1024:1024", "--cgroup-parent", f"/{GROUPS}", "--cidfile", self.folder / container,
                        "--name", container, "probe:1", *words)

            self.both(f"podman, {runtime}", run,
                      lambda container, *words, podman=podman: (*podman, "exec", "-i", container, *words),
                      lambda container, image=image: {
                          "container_id": (self.folder / container).read_text(), "container_name": container,
                          "image_name": "localhost/probe:1", "image_id": f"sha256:{image}"})

    def test_containerd(self):
        socket = self.folder / "containerd.sock"
        daemon = subprocess.Popen(["containerd", "-c", "/dev/null", "--address", socket, "--root",
                                   self.folder / "containerd", "--state", self.folder / "containerd-state"],
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(daemon.wait, harness.PATIENCE)
        self.addCleanup(daemon.terminate)
        ctr = ("ctr", "-a", socket, "-n", GROUPS)
        # Its socket is there before it answers.
        harness.wait_until(lambda: subprocess.run([*ctr, "version"], capture_output=True, check=False).returncode == 0)
        self.both("containerd", lambda *words: (*ctr, "run", "--rm", "--cap-add", "CAP_SYS_ADMIN", "--rootfs", self.folder / "root", *words),
                  lambda *words: (*ctr, "tasks", "exec", "--exec-id", secrets.token_hex(4), *words))


class InPods(Watched):
    """Containers of containerd's CRI plug-in. One agent asks it, the other has their bundles alone."""

    @classmethod
    def setUpClass(cls):
        folder = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory(prefix="ce-pods.")))
        cls.containerd = cri.Containerd(folder)
        cls.addClassCleanup(cls.containerd.close)
        cls.image, cls.digest = cls.containerd.load(harness.make_archive(folder / "image"), (
            "podman", "--root", folder / "podman", "--runroot", folder / "podman-run", "--storage-driver", "vfs",
            "--cgroup-manager=cgroupfs", "--events-backend=file"))
        cls.asking = ("--engine", f"cri={cls.containerd.socket}")
        cls.pod = cri.Pod(cls.containerd, "cart")
        cls.addClassCleanup(cls.pod.close)
        super().setUpClass()

    @classmethod
    def watcher(cls, *options):
        return super().watcher(*(options or cls.asking))

    def known_without_engine(self, container, seen):
        return super().known_without_engine(container | {"image_id": ""}, seen)

    def known(self, container, name):
        return {"container_id": container, "container_name": name, "image_name": "probe:1", "image_id": self.image}

    def test_every_way_into_a_pods_container(self):
        resident = self.pod.start("resident", command=("/bin/sleep", "100000"))
        known = self.known(resident, "resident")
        join = (*self.containerd.ctr("k8s.io"), "tasks", "exec", "--exec-id")
        shell = harness.Server(*join, "shell", resident, *SHELL)
        self.addCleanup(shell.close)
        # As the kubelet gives it: by its id.
        images = itertools.cycle(("docker.io/library/probe:1", self.image))

        def first(**more):
            name = f"web-{secrets.token_hex(4)}"
            container, said = self.pod.run(name, *ATTACK[1:], image=next(images), **more)
            return harness.made(said), self.known(container, name)

        with harness.Agent(harness.policy(scope="container"), "--alarm-format", "envelope", *self.asking) as agent:
            self.try_way("CRI: first process", first)
            envelopes = [agent.alarm(patience=NOTICED)[1] for _ in range(TRIES)]
            self.try_way("CRI: privileged", lambda: first(privileged=True), tries=1)
            strong = agent.alarm(patience=NOTICED)[1]
        self.assertEqual([each["container"]["privileged"] for each in (envelopes[0], strong)], [False, True])
        for told in (envelope["container"] for envelope in envelopes):
            self.assertEqual((told["name"][:4], told["pod"], told["namespace"], told["pod_uid"], told["image"]),
                             ("web-", "cart", "shop", self.pod.uid, "probe:1"))
            self.assertEqual((told["engine"], told["image_id"], told["digest"]), ("cri", self.image, self.digest))
        self.assertEqual(len({envelope["container"]["id"] for envelope in envelopes}), TRIES)
        self.try_way("CRI: exec", lambda: (harness.made(harness.run(*join, secrets.token_hex(4), resident, *ATTACK)), known))
        self.try_from(shell, "CRI: ", known)
