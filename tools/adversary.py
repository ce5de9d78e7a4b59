# SPDX-License-Identifier: Apache-2.0
"""An attacker that has read the agent's source: what it does to stay unseen, and the alarms that must come anyway.

    adversary.py [--tries 10] [--scope thread|container]... [--user 64999] [--seed N] [WORD...]

Tries each technique (those whose names hold a word) and prints in how many tries an alarm was missing, in each scope.
CE_BUILD_DIR is the build to try; for one of an older commit, a folder with its bin and lib and today's tools/probe.
"soak.py --adversary" takes the techniques from here, too.
"""

import argparse
import contextlib
import dataclasses
import itertools
import json
import pathlib
import random
import secrets
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.dont_write_bytecode = True
sys.path.append(str(ROOT / "tests/e2e"))
import harness  # noqa: E402
import run  # noqa: E402
import test_files  # noqa: E402
from harness import BRUTE, FILES, HIGH_RISK, HOST_FILE, SHOCKER  # noqa: E402

IMPAIRED = "Detection impaired"
# Thirteen that every kernel has.
CALLS = ("unshare", "setns", "mount", "umount2", "pivot_root", "chroot", "ptrace", "process_vm_readv",
         "process_vm_writev", "keyctl", "userfaultfd", "mknodat", "open_by_handle_at")
USER = 64999  # no process of a container has this one

CAPABLE = ("--cap-add", "DAC_READ_SEARCH", "--cap-add", "SYS_ADMIN")
POWERLESS = ("--pid", "host", "--cap-drop", "ALL")
PROGRAMS = tuple(word for path in ("/usr", "/lib", "/lib64") for word in ("-v", f"{path}:{path}:ro"))
REAL = f"fork shocker {HOST_FILE}"
ATTEMPT = "getdents64,getdents64,open_by_handle_at"

SLOTS = 40  # folders for the techniques with files, used in turn
PATIENCE = 15  # seconds
MINUTE = 61  # the agent tells of the same impairment once a minute
RESTORED = 2.5  # it looks once a second


@dataclasses.dataclass
class Expected:
    """An alarm that must come; or, if it is unwanted, must not."""

    event: str
    container: str = ""  # its id; none for the agent's own alarms
    said: tuple = ()     # the call, the cause or the path, of which one must be told; empty: any
    begun: int = 0
    within: float = PATIENCE
    unwanted: bool = False

    def met(self, arrived):
        """Nanoseconds from the deed to the alarm, of those that arrived with their times; None without it."""
        for when, alarm in arrived:
            if self.begun <= when <= self.begun + self.within * 1e9 and self.is_it(alarm):
                return when - self.begun
        return None

    def is_it(self, alarm):
        forensic = alarm.get("forensic_info", {})
        told = (forensic.get("sys_call"), forensic.get("cause"), alarm.get("file_info", [{}])[0].get("file_path"))
        return (self.event in (alarm["event_name"], "") and self.container in (container_of(alarm), "") and
                (not self.said or any(each in told for each in self.said)))


def container_of(alarm):
    return (alarm.get("resource_info") or {}).get("container_id", "")


class Attacker(harness.Resident):
    def act(self, *orders, event=SHOCKER, said=()):
        """Carries the orders out, of which the last must be told."""
        for order in orders:
            begun, _ = self.do(order)
        return [Expected(event, self.id, said, begun)]


class Field:
    """Where the attacker acts: an engine, folders that its containers mount, control groups of its own, the agent."""

    def __init__(self, engine, folder, seed, user=USER):
        self.engine, self.folder, self.user = engine, pathlib.Path(folder), user
        self.chance = random.Random(seed)
        self.folder.chmod(0o711)  # its programs are for any user
        self.mark = f"adversary{secrets.token_hex(4)}"  # in the names of control groups
        self.serial, self.slots, self.parents = itertools.count(), itertools.cycle(range(SLOTS)), itertools.count()
        self.pipes = self.folder / "pipes"
        self.pipes.mkdir()
        for slot in range(SLOTS):
            test_files.prepare(self.slot(slot))
        harness.make_root(self.folder / "root")
        engine.make_image("probe:1", "quiet:1")
        self.innocent = [engine.start("--name", name, image=f"{image}:1")
                         for name, image in (("innocent", "probe"), ("whitelisted", "quiet"))]
        self.guilty, self.alive, self.stack = set(), [], contextlib.ExitStack()
        self.agent, self.scope, self.due = None, "container", {}

    def slot(self, number):
        return self.folder / f"slot{number}"

    def agent_for(self, scope, *options):
        self.scope = scope
        directories = [str(self.slot(slot) / name) for slot in range(SLOTS) for name in ("watched", "later")]
        policy = harness.policy(CALLS, directories, ["quiet"], scope if scope != "thread" else None)
        prefix = harness.unprivileged(self.user) if self.user else ()
        return harness.Agent(policy, *options, socket=self.engine.socket, prefix=prefix)

    def attacker(self, *options, mine=CAPABLE, **more):
        """A new container: its hour for each kind of alarm is unspent."""
        name = f"attacker{next(self.serial)}"
        attacker = Attacker(self.engine, self.pipes, name, *mine, *options, **more)
        self.guilty.add(attacker.id)
        self.alive.append((name, attacker))
        return attacker

    def pause(self, technique):
        """Seconds until it can be tried, since the agent tells of the same impairment once a minute."""
        return max(0.0, self.due.get(technique, 0) - time.monotonic())

    def is_known(self, container):
        """Whether an alarm may name it."""
        return container in self.guilty or self.mark in container

    def clear(self):
        """After each try."""
        self.stack.close()
        while self.alive:
            name, attacker = self.alive[-1]
            self.engine.docker("rm", "-f", name)
            attacker.close()
            self.alive.pop()

    def close(self):
        with contextlib.suppress(RuntimeError):  # the engine's end removes them
            self.clear()
        for name in pathlib.Path("/sys/fs/cgroup").glob(f"**/*{self.mark}*"):
            with contextlib.suppress(OSError):  # one within another
                harness.remove_groups(name.name)


TECHNIQUES = {}  # by name; each carries out one try and returns what is expected


def technique(name):
    return lambda function: TECHNIQUES.setdefault(name, function)


# ---- identity

@technique("identity: an id that decoys had")
def used_ids(field):
    limit = pathlib.Path("/proc/sys/kernel/pid_max")
    field.stack.callback(limit.write_text, limit.read_text())
    decoy = field.attacker()
    limit.write_text("6000")
    decoy.do(f"self decoys 6500 {ATTEMPT}")
    if field.scope == "thread":
        time.sleep(harness.MERGE_SECONDS)
    return field.attacker().act(REAL)


@technique("identity: a group below another's")
def borrowed_group(field):
    parents = (f"/libpod_parent-{field.mark}", f"/docker/{field.innocent[1]}", f"/docker/{field.innocent[0]}")
    parent = parents[next(field.parents) % len(parents)]
    return field.attacker("--cgroup-parent", parent).act(REAL)


@technique("identity: a user's group with a container's name")
def forged_group(field):
    innocent = field.chance.choice(field.innocent)
    group = f"{field.mark}/docker-{innocent}.scope"
    hierarchies = [path.parent for path in pathlib.Path("/sys/fs/cgroup").glob("*/cgroup.procs")]
    for hierarchy in hierarchies:
        (hierarchy / field.mark).mkdir(exist_ok=True)
        if hierarchy.name == "cpuset":
            for file in ("cpuset.cpus", "cpuset.mems"):
                (hierarchy / field.mark / file).write_text((hierarchy / file).read_text())
        for path in (hierarchy / field.mark, *(hierarchy / field.mark).iterdir()):
            shutil.chown(path, USER + 1, USER + 1)
    name = pathlib.Path(group).name
    script = (f"for g in /sys/fs/cgroup/*/{field.mark}; do mkdir -p $g/{name}; [ ! -e $g/cpuset.cpus ] || "
              f"for f in cpus mems; do cat $g/cpuset.$f >$g/{name}/cpuset.$f; done; done; "
              f"for g in /sys/fs/cgroup/*/{group}; do echo $$ >$g/cgroup.procs; done; exec probe self call unshare")
    begun = time.monotonic_ns()
    shutil.copy(harness.PROBE, field.folder / "probe")
    join = 'for g in /sys/fs/cgroup/*/$1; do echo $$ >$g/cgroup.procs; done; PATH=$2:$PATH; shift 2; exec "$@"'
    subprocess.run(["sh", "-c", join, "sh", field.mark, field.folder, "setpriv", f"--reuid={USER + 1}",
                    f"--regid={USER + 1}", "--clear-groups", "sh", "-c", script], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return [Expected("", innocent, (), begun, 3, unwanted=True)]


@technique("identity: a runtime's container with a plain name")
def plain_name(field):
    name = f"web-{field.mark}-{next(field.serial)}"
    bundle = harness.bundle(field.folder / name, field.folder / "root", f"/{field.mark}/{name}",
                            ["/bin/probe", "self", "call", ATTEMPT])
    begun, _ = harness.made(harness.run("runc", "--root", field.folder / "runc", "run", "-b", bundle, name))
    return [Expected(SHOCKER, name, (), begun)]


@technique("identity: out of its group, adopted by the host's init")
def leaves_group(field):
    attacker = field.attacker("--pid", "host", "--cgroupns", "host", "-v", "/sys/fs/cgroup:/groups", before=(
        "for g in /groups/cgroup.procs /groups/*/cgroup.procs; do echo $$ >$g; done 2>/dev/null"))
    group = pathlib.Path(f"/proc/{field.engine.inspect(attacker.id, '{{.State.Pid}}')}/cgroup").read_text()
    if attacker.id in group:
        raise RuntimeError(f"it is still in its group: {group}")
    return attacker.act(f"daemon shocker {HOST_FILE}")


# ---- what is heard

@technique("calls: beside a decoy")
def beside_decoy(field):
    attacker, decoy = field.attacker(), field.attacker()
    decoy.do(f"fork call {ATTEMPT},unshare")
    return attacker.act(REAL) + attacker.act("fork call unshare", event=HIGH_RISK, said=("unshare",))


@technique("calls: all listed calls at once")
def listed_at_once(field):
    attacker = field.attacker()
    begun, _ = attacker.do("fork call " + ",".join(CALLS))
    return [Expected(HIGH_RISK, attacker.id, (call,), begun) for call in CALLS]


for what, words in {"calls: listing and opening by two threads": ("thread call getdents64,getdents64",
                                                             "thread call open_by_handle_at"),
                    "calls: a single listing": ("fork call getdents64,open_by_handle_at",),
                    "calls: listings by i386's readdir": ("fork call32 readdir,readdir,open_by_handle_at",),
                    "calls: 20 threads x 250 handles before its own listing": (f"self volley 250 {ATTEMPT}",)}.items():
    TECHNIQUES[what] = lambda field, words=words: field.attacker().act(*words)
TECHNIQUES["calls: 20 threads that guess 280 handles in a second each"] = lambda field: field.attacker().act(
    "self crowd 20 280", event=BRUTE)


# ---- the agent as a target

def target(field, options, deed, cause=None, **more):
    """Does something to the agent from a new container, which then attacks."""
    begun = time.monotonic_ns()
    attacker = field.attacker(*PROGRAMS, *options, before=f"({deed}) 2>/dev/null", **more)
    told = [Expected(IMPAIRED, "", (cause,), begun)] if cause else []
    return told + attacker.act("fork call unshare", event=HIGH_RISK, said=("unshare",))


@technique("agent: the host's uid 0 without capabilities stops it or lowers its limits")
def powerless(field):
    pid = field.agent.pid
    deed = field.chance.choice((f"kill -STOP {pid}", f"/usr/bin/prlimit --fsize=1 --pid {pid}",
                                f"/usr/bin/prlimit --nofile=9 --pid {pid}", f"kill -XFSZ {pid}"))
    expected = target(field, POWERLESS, f"{deed}; (sleep 3; kill -CONT {pid}) &", mine=())
    expected[-1].within = 2.5  # what stops it makes it later than that; names are waited for two seconds
    if "STOP" in deed:
        time.sleep(3.5)
    return expected


@technique("agent: CAP_KILL stops it for three seconds")
def stopped(field):
    pid = field.agent.pid
    expected = target(field, POWERLESS, f"kill -STOP {pid}; (sleep 3; kill -CONT {pid}) & sleep 0.2", "agent stopped",
                      mine=("--cap-add", "KILL"))
    time.sleep(3.5)  # its container must not be removed before that
    return expected


@technique("agent: CAP_SETUID makes it the agent's user, which lowers its limits")
def limited(field):
    deed = field.chance.choice(("--nofile=9:", "--fsize=1:"))
    return target(field, (*POWERLESS, "--user", f"{field.user}:{field.user}"),
                  f"/usr/bin/prlimit {deed} --pid {field.agent.pid}", "limits tampered with", mine=())


@technique("agent: tracefs tampered with")
def tampered(field):
    instance = f"/tracing/instances/containerescape-agent-{field.agent.pid}"
    file, written = field.chance.choice((("tracing_on", "0"), ("set_event_pid", "1"), ("buffer_size_kb", "1"),
                                         ("events/sched/enable", "1"), ("set_event", "")))
    deed = f"echo {written} >{instance}/{file}"
    path = harness.INSTANCES / pathlib.Path(instance).name / file
    before = path.read_text()
    if not before:  # no event is on that could be switched off
        return tampered(field)
    expected = target(field, ("-v", "/sys/kernel/tracing:/tracing"), deed, "tracefs tampered with")
    time.sleep(RESTORED)
    if path.read_text() != before:
        expected.append(Expected(f"{deed} restored"))
    return expected


# ---- files

def files(order):
    def act(field):
        number = next(field.slots)
        slot = field.slot(number)
        test_files.prepare(field.slot((number + SLOTS // 2) % SLOTS))  # long after its last use, long before the next
        attacker = field.attacker("-v", f"{slot}:/host")
        paths = test_files.aim(slot, order)
        return attacker.act(f"fork {order}", event=FILES, said=tuple(paths))
    return act


TECHNIQUES.update({f"files: {what}": files(order) for what, order in test_files.TECHNIQUES.items()})


# ---- what fails and what comes of it

@dataclasses.dataclass
class Try:
    technique: str
    expected: list
    beside: str  # the storm under way
    refused: str = ""  # why it was not made

    def missing(self, arrived):
        return [each for each in self.expected if (each.met(arrived) is None) != each.unwanted]


def attempt(field, name, beside=""):
    """One try. What the engine refuses, as while it restarts, was none."""
    made = Try(name, [], beside)
    try:
        made.expected = TECHNIQUES[name](field)
    except (RuntimeError, AssertionError, OSError, subprocess.SubprocessError) as problem:
        made.refused = f"{type(problem).__name__}: {problem}"
    if any(each.event == IMPAIRED for each in made.expected):
        field.due[name] = time.monotonic() + MINUTE
    with contextlib.suppress(RuntimeError):  # the next one removes what is left
        field.clear()
    return made


def arrivals(agent):
    """Every alarm with the time of its arrival."""
    return [(when, json.loads(line)) for when, line in list(agent.output.arrived)]


def summary(tries, arrived):
    """For each technique: (name, tries, those with a missing alarm, milliseconds of those that came, refusals)."""
    for name in TECHNIQUES:
        own = [each for each in tries if each.technique == name]
        made = [each for each in own if not each.refused]
        took = [each.met(arrived) for one in made for each in one.expected]
        yield (name, len(made), [each for each in made if each.missing(arrived)],
               [each / 1e6 for each in took if each is not None], [each.refused for each in own if each.refused])


# ---- for the soak

STORMS = {  # name: options, what a shell does; a container's default shares, no limit of its processes
    "200 processes that fork": (("--user", "65534"), "for each in $(seq 200); do (while :; do /bin/true; done) & done"),
    "listed calls by 400 processes": ((), "for each in $(seq 400); do (while :; do probe self call " + ",".join(CALLS) +
                                      "; done) >/dev/null & done"),
    "40 writers": ((), "for each in $(seq 40); do (n=0; while :; do n=$((n+1)); echo x >/host/$each.$((n%500)); "
                   "done) & done"),
    "processes of 1000 calls each": ((), "probe spread 1000 getdents64 & probe spread 1000 getppid &"),
}
STORM_SECONDS, CALM_SECONDS = 12, 15
WORK = """
cd /tmp; tar -cf all.tar -C /usr/include linux asm-generic; mkdir out; tar -xf all.tar -C out; cp -r out again
find /usr/include -name '*.h' >found; mv out moved; rm -r again
echo 'int main(void) { return 0; }' >a.c; cc a.c; ./a.out
"""


class Siege:
    """What soak.py has attack: the techniques in random order, in rounds, beside storms and ordinary work."""

    def __init__(self, engine, watched, seed):
        print(f"seed {seed}", flush=True)
        self.field = Field(engine, watched, seed)
        self.engine, self.tries, self.round, self.beside = engine, [], [], ""
        self.chance = random.Random(seed)
        (self.field.folder / "flood").mkdir()
        self.serial = itertools.count()
        self.workers = (self.storm, self.work)

    def agent(self, *options):
        self.field.agent = self.field.agent_for("container", *options)
        return self.field.agent

    def storm(self):
        name, self.beside = f"storm-{next(self.serial)}", self.chance.choice(list(STORMS))
        options, script = STORMS[self.beside]
        try:
            self.field.guilty.add(self.engine.start("--name", name, "-v", f"{self.field.folder}/flood:/host", *options,
                                                    command=("sh", "-c", f"{script}; wait")))
            time.sleep(STORM_SECONDS)
        finally:
            self.remove(name)
            self.beside = ""
        time.sleep(CALM_SECONDS)

    def remove(self, name):
        """However long the engine refuses to."""
        while True:
            try:
                if not self.engine.docker("ps", "-aq", "--filter", f"name=^{name}$"):
                    return
                self.engine.docker("rm", "-f", name)
            except RuntimeError:
                time.sleep(1)

    def work(self):
        self.engine.docker("run", "--rm", "--network", "none", "--name", f"work-{next(self.serial)}", *PROGRAMS, "-v",
                           "/etc/alternatives:/etc/alternatives:ro", "-e", "PATH=/usr/bin:/bin", "probe:1", "sh", "-ec",
                           WORK)
        time.sleep(10)

    def attack(self):
        self.round = self.round or self.field.chance.sample(list(TECHNIQUES), len(TECHNIQUES))
        due = [name for name in self.round if not self.field.pause(name)]
        if not due:
            time.sleep(1)
            return
        self.round.remove(due[0])
        self.tries.append(attempt(self.field, due[0], self.beside))
        if self.tries[-1].refused:
            time.sleep(1)  # the engine restarts

    def finish(self):
        """What was raised by then has arrived."""
        time.sleep(PATIENCE)
        self.field.close()

    def check(self):
        arrived = arrivals(self.field.agent)
        for name, made, missed, took, refused in summary(self.tries, arrived):
            middle, most = (statistics.median(took), max(took)) if took else (0, 0)
            yield (name, made and not missed,
                   f"{len(missed)} of {made} missed, median {middle:.1f} ms, maximum {most:.1f} ms" +
                   "".join(f"; beside {one.beside or 'no storm'}: {one.missing(arrived)}" for one in missed))
        refused = [f"{one.technique}: {one.refused[-300:]}" for one in self.tries if one.refused]
        yield ("attacks could be made", len(refused) * 5 <= len(self.tries),
               f"{len(refused)} of {len(self.tries)} not, the last ones: {refused[-3:]}")
        accused = [alarm for _, alarm in arrived
                   if alarm["event_name"] != IMPAIRED and not self.field.is_known(container_of(alarm))]
        yield "no innocent container is accused", not accused, f"{len(accused)} alarms, the first: {accused[:2]}"
        causes = [alarm["forensic_info"]["cause"] for _, alarm in arrived if alarm["event_name"] == IMPAIRED]
        yield "impairments", True, str({cause: causes.count(cause) for cause in sorted(set(causes))})


def ready_agent(field, scope, agents):
    """The running agent with its policy read again, which opens the gates of its hours; or a new one, if it died or
    hangs."""
    if agents and agents[-1].process.poll() is None:
        with contextlib.suppress(AssertionError):
            agents[-1].reload()
            return agents[-1]
        agents[-1].process.kill()
        agents[-1].process.wait()
    agents.append(field.agent_for(scope))
    return agents[-1]


def table(field, scopes, tries, words):
    chosen = [name for name in TECHNIQUES if not words or any(word in name for word in words)]
    results = {}
    for scope in scopes:
        agents, made = [], []
        try:
            for name in chosen * tries:
                time.sleep(field.pause(name))
                field.agent = ready_agent(field, scope, agents)
                made.append(attempt(field, name))
                time.sleep(1)
            time.sleep(PATIENCE)
        finally:
            for agent in agents:
                agent.close()
        results[scope] = {row[0]: row for row in summary(made, sum(map(arrivals, agents), []))}
        print(f"scope {scope}: {len(agents)} agents, of which {len(agents) - 1} died or hung")
    print("| technique |", " | ".join(f"scope {scope}" for scope in scopes), "|")
    print("|---|" + "---|" * len(scopes))
    for name in chosen:
        rows = [results[scope][name] for scope in scopes]
        print(f"| {name} |", " | ".join(f"{len(missed)} of {made}" for _, made, missed, _, _ in rows), "|")
        for scope, (*_, refused) in zip(scopes, rows):
            if refused:
                print(f"  {len(refused)} not made in scope {scope}, the first: {refused[0]}")


def main():
    words = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    words.add_argument("--tries", type=int, default=10)
    words.add_argument("--scope", action="append", choices=("thread", "container"))
    words.add_argument("--user", type=int, default=USER, help="the agent's; 0: root")
    words.add_argument("--seed", type=int, default=secrets.randbits(32))
    words.add_argument("words", nargs="*")
    options = words.parse_args()
    if reason := run.why_not():
        sys.exit(f"adversary: {reason}")
    print(f"seed {options.seed}")
    with harness.alone_on_this_machine(), tempfile.TemporaryDirectory(prefix="ce-adversary.") as folder:
        engine = harness.Engine()
        field = Field(engine, folder, options.seed, options.user)
        try:
            table(field, options.scope or ("thread", "container"), options.tries, options.words)
        finally:
            field.close()
            engine.close()


if __name__ == "__main__":
    main()
