# SPDX-License-Identifier: Apache-2.0
"""An attacker that knows the detectors. In the scope of threads some attacks stay hidden, in that of containers none."""

import concurrent.futures
import contextlib
import json
import pathlib
import signal
import subprocess
import time

import harness
from harness import BRUTE, HIGH_RISK, HOST_FILE, MERGE_SECONDS, SHOCKER, is_call, named

CALLS = ("setns", "mount", "umount2", "ptrace", "pivot_root", "chroot")
TRIES = len(CALLS)
SCOPES = ("thread", "container")
ATTACK = f"fork shocker {HOST_FILE}"
CAPABLE = ("--cap-add", "DAC_READ_SEARCH", "--cap-add", "SYS_ADMIN")
PID_MAX = pathlib.Path("/proc/sys/kernel/pid_max")

# What ordinary containers do, with the host's programs.
WORK = """
set -e; cd /tmp; export HOME=/tmp
tar -cf all.tar -C /usr/include linux asm-generic; mkdir out; tar -xf all.tar -C out; cp -r out again
find /usr -name '*.h' >found
git init -q r; cp -r out/linux r; cd r; git add .; git -c user.name=x -c user.email=x commit -qm x; git status
echo 'int main(void) { return 0; }' >a.c; cc a.c; ./a.out
"""
PROGRAMS = [word for path in ("/usr", "/lib", "/lib64", "/bin", "/etc/alternatives")
            for word in ("-v", f"{path}:{path}:ro")]

# A process of the host moves itself into groups, and attacks when its input ends.
JOINER = """
probe=$1; shift; for group; do echo $$ >$group; done 2>/dev/null; echo moved; read -r end; exec $probe self call {}
"""

# Leaves its groups at the second order, storms, and has orphans carry out that order and those to come.
LEAVER = """
read -r order; probe $order; echo done; read -r order
for group in /cg/cgroup.procs /cg/*/cgroup.procs; do echo 0 >$group; done 2>/dev/null
for each in 1 2 3 4 5 6 7 8; do probe spread 20 getdents64 & storm="$storm $!"; done
while ( ( sleep 0.5; probe $order; : ) & ); read -r order; do :; done
kill $storm
"""
LATE = 10  # seconds in which an alarm has to come


class Adversary(harness.InDocker):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        for name in ("victim", "decoy"):
            cls.engine.start("--name", name, *CAPABLE)

    def setUp(self):
        self.victim, self.decoy = self.server("victim"), self.server("decoy")

    def until(self, agent, order, wanted):
        """The alarms of the victim, up to the one that comes for an order to the decoy: what precedes it has been
        handled by then."""
        seen = len(agent.alarms())
        self.decoy.do(order)
        agent.alarm(wanted)
        return [alarm for alarm in agent.alarms()[seen:] if alarm["container_name"] == "victim"]

    def compare(self, what, expected, tries, count):
        """Holds the misses in each scope against what is expected. `count`: makes that many tries in a scope."""
        misses = {scope: count(scope) for scope in SCOPES}
        print(f"\n  {what}, misses of {tries}: {misses}", end="", flush=True)
        with self.subTest(what):
            self.assertEqual(misses, dict(zip(SCOPES, expected)))

    def test_neither_decoys_nor_threads_hide_an_attack(self):
        hidden = (TRIES, 0)
        for what, event, orders, expected in (
                ("Shocker beside a decoy", SHOCKER, [(self.decoy, ATTACK), (self.victim, ATTACK)], hidden),
                ("listing and opening by two threads", SHOCKER,
                 [(self.victim, f"thread call {calls}") for calls in ("getdents64,getdents64", "open_by_handle_at")],
                 hidden),
                ("a single listing", SHOCKER, [(self.victim, "fork call getdents64,open_by_handle_at")], hidden),
                ("listings by i386's readdir", SHOCKER,
                 [(self.victim, "fork call32 readdir,readdir,open_by_handle_at")], (0, 0)),
                ("20 threads that guess 280 handles in a second each", BRUTE, [(self.victim, "self crowd 20 280")], hidden)):
            def count(scope, event=event, orders=orders):
                misses = 0
                with self.agent(calls=CALLS, scope=scope) as agent:
                    for call in CALLS:
                        agent.reload()  # opens the gates, which would hold back the alarms of later tries
                        for server, order in orders:
                            server.do(order)
                        misses += not any(map(named(event), self.until(agent, f"self call {call}", is_call(call))))
                return misses
            self.compare(what, expected, TRIES, count)

    def test_no_container_spends_the_hour_of_another(self):
        def count(scope):
            with self.agent(calls=["unshare", *CALLS], scope=scope) as agent:
                self.decoy.do("self call unshare")
                self.victim.do("fork call " + ",".join(CALLS))
                return TRIES - len(self.until(agent, ATTACK, named(SHOCKER)))
        self.compare("listed calls at once, beside a decoy", (TRIES, 0), TRIES, count)

    def test_an_id_that_decoys_had_starts_anew(self):
        before = PID_MAX.read_text(encoding="ascii")
        self.addCleanup(PID_MAX.write_text, before)

        def count(scope):
            misses = 0
            with self.agent(calls=["unshare"], scope=scope) as agent:
                PID_MAX.write_text("6000", encoding="ascii")  # so that every id has been used soon
                self.decoy.do("self decoys 6500 getdents64,getdents64,open_by_handle_at")
                agent.alarm(named(SHOCKER))
                for number in range(3):
                    if scope == "thread":
                        time.sleep(MERGE_SECONDS)
                    name = f"{scope}{number}"
                    how = ("self", "fork", "self")[number]  # the container's first process, which no fork tells of
                    self.engine.docker("run", "--rm", "--name", name, *harness.OPEN, *CAPABLE, "probe:1", "probe", how,
                                       *ATTACK.split()[1:])
                    misses += agent.alarm(lambda alarm: alarm["container_name"] != "decoy")[1]["container_name"] != name
                PID_MAX.write_text(before, encoding="ascii")
            return misses
        self.compare("Shocker after decoys that used up all ids", (0, 0), 3, count)

    def test_a_borrowed_group_neither_hides_nor_accuses(self):
        victim = self.engine.inspect("victim", "{{.Id}}")
        parents = ("/libpod_parent", f"/docker/{victim}", f"/docker/{'c' * 64}")
        for name in ("libpod_parent", "c" * 64):
            self.addCleanup(harness.remove_groups, name)
        with self.agent(calls=CALLS, scope="container") as agent:
            misses = 0
            for call in CALLS[:len(parents)]:
                parent = parents[CALLS.index(call)]
                container = self.engine.docker("run", "-d", *harness.OPEN, *CAPABLE, "--cgroup-parent", parent, "probe:1",
                                               "probe", "self", "call", call).strip()
                misses += agent.alarm(is_call(call))[1]["resource_info"]["container_id"] != container
                self.engine.docker("rm", "-f", container)
        print(f"\n  groups below another's, misses of {len(parents)}: {misses}", end="", flush=True)
        self.assertEqual(misses, 0)

    def test_a_host_process_that_joins_a_container_is_its(self):
        """Moves itself, into a container's groups or into some that are only named like one's. The agent sees it move,
        but sees its attack when it has gone."""
        victim, unknown = self.engine.inspect("victim", "{{.Id}}"), "d" * 64
        self.addCleanup(harness.remove_groups, unknown)
        for group in pathlib.Path("/sys/fs/cgroup").glob(f"**/{victim}/"):
            (group.parent / unknown).mkdir()
        with self.agent(calls=CALLS, scope="container") as agent:
            for container, call in zip((victim, unknown) * TRIES, CALLS):
                groups = [*pathlib.Path("/sys/fs/cgroup").glob(f"**/{container}/cgroup.procs")]
                joiner = subprocess.Popen(["sh", "-c", JOINER.format(call), "sh", harness.PROBE, *groups],
                                          stdin=subprocess.PIPE, stdout=subprocess.PIPE)
                self.addCleanup(joiner.stdout.close)
                joiner.stdout.readline()
                self.decoy.do(f"self call {call}")
                agent.alarm(is_call(call))
                agent.process.send_signal(signal.SIGSTOP)
                joiner.stdin.close()
                joiner.wait(harness.PATIENCE)
                agent.process.send_signal(signal.SIGCONT)
                self.assertEqual(agent.alarm(is_call(call))[1]["resource_info"]["container_id"], container)

    def test_a_container_that_leaves_its_groups_is_still_it(self):
        """It can write to the control groups. The host adopts what attacks, while a storm of the container's makes the
        agent lose events and the kernel exclude forks. One container is older than the agent."""
        calls, misses = {*CALLS, "keyctl", "process_vm_readv"}, {}
        for age in ("older", "younger"):
            self.start("--name", age, *CAPABLE, "--pid", "host", "--cgroupns", "host", "-v", "/sys/fs/cgroup:/cg")
            leaver = self.server(age, ("sh", "-c", LEAVER))
            if age == "older":
                agent = self.agent("--buffer-kb", "64", calls=calls, scope="container")
            for call in calls:
                leaver.process.stdin.write(f"daemon call {call}\n")
                leaver.process.stdin.flush()
            missed = misses[age] = set(calls)
            with contextlib.suppress(AssertionError):
                while missed:
                    alarm = agent.alarm(lambda alarm, age=age: named(HIGH_RISK)(alarm) and alarm["container_name"] == age,
                                        LATE)[1]
                    missed.discard(alarm["forensic_info"]["sys_call"])
            leaver.close()
        counts = agent.stop()
        print(f"\n  out of all groups, adopted, in a storm, misses of {len(calls)} each: {misses}; {counts}", end="", flush=True)
        self.assertGreater(counts["shed_kernel"], 10000)
        self.assertEqual(misses, dict.fromkeys(misses, set()))

    def test_ordinary_work_is_silent(self):
        policy = json.loads((harness.ROOT / "packaging/policy.json").read_text(encoding="ascii"))
        agents = []
        for scope in SCOPES:
            policy["content"]["container_escape_detect_task"]["scope"] = scope
            agents.append(harness.Agent(policy, socket=self.engine.socket))
            self.addCleanup(agents[-1].close)
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            for done in [pool.submit(self.engine.docker, "run", "--rm", "--network", "none", *PROGRAMS, "probe:1",
                                     "sh", "-c", WORK) for _ in range(4)]:
                done.result()
        self.victim.do("self call setns")
        for agent in agents:
            agent.alarm(is_call("setns"))
            self.assertEqual(len(agent.alarms()), 1, agent.alarms())
