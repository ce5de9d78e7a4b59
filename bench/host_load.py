# SPDX-License-Identifier: Apache-2.0
"""What the agent costs a host: the same work without it, and with each source of system calls.

    host_load.py [ROUNDS [AGENT]]    default 7; needs root and a release build. AGENT: another build, to compare

A round does all the work once in each state, so that what disturbs the machine for a while disturbs all of them. Each
figure is the median over the rounds, that of a single call the median of each round's quickest loop.
"""

import os
import pathlib
import resource
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import agents  # noqa: E402
from agents import LOAD, ROOT, harness  # noqa: E402

STATES = {"no agent": None,
          "--syscalls bpf": ("--syscalls", "bpf"),
          "the same, envelopes": ("--syscalls", "bpf", "--alarm-format", "envelope"),
          "--syscalls tracefs": ("--syscalls", "tracefs")}
OTHER = "the other build"
AGENT = harness.AGENT
POLICY = (ROOT / "packaging/policy.json").read_text()
TREE = "/usr"
# Loops much shorter than a time slice: the quickest of them was not interrupted.
LOOP, LOOPS = 10_000, 200
COMPILES = 12
EXECS = 2000
# What the agent does at its start, and what it left to the kernel at its stop, is no part of the figures.
SETTLE_SECONDS = 0.5


def a_call(name):
    return [LOAD, "call", name, LOOP, LOOPS]


def compiling(folder):
    source = ROOT / "tools/probe.c"
    return ["sh", "-ec", f"for i in $(seq {COMPILES}); do cc -O1 -pthread -o '{folder}/out' '{source}'; done"]


def inside(group, command):
    return ["sh", "-ec", f"echo $$ >'{group}/cgroup.procs'; exec " + " ".join(map(str, command))]


# Name, command, and whether it prints the ns of its calls. The policy lists setns, the Shocker detector watches
# getdents64, by which find lists.
def the_work(folder, group):
    return (("nothing", ["sleep", 2], False),
            ("an unwatched call", a_call("getppid"), True),
            ("a watched call", a_call("setns"), True),
            (f"find {TREE}", ["find", TREE, "-xdev"], False),
            (f"{COMPILES} compilations", compiling(folder), False),
            (f"{EXECS} programs", [LOAD, "exec", EXECS, "/bin/true"], False),
            (f"{EXECS} in a container", inside(group, [LOAD, "exec", EXECS, "/bin/true"]), False))


def children_cpu_seconds():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def do(command, prints_ns):
    """Does the work. Returns its figures: the ns of a call, or wall and CPU seconds of the work."""
    before, begun = children_cpu_seconds(), time.monotonic()
    done = subprocess.run([str(word) for word in command], check=True, text=True,
                          stdout=subprocess.PIPE if prints_ns else subprocess.DEVNULL,
                          env=dict(os.environ, CCACHE_DISABLE="1"))
    wall = time.monotonic() - begun
    if prints_ns:
        return {"ns": min(map(float, done.stdout.split()))}
    return {"wall s": wall, "its own CPU s": children_cpu_seconds() - before}


def measure(state, command, prints_ns):
    if STATES[state] is None:
        return do(command, prints_ns)
    harness.AGENT = pathlib.Path(sys.argv[2]) if state == OTHER else AGENT
    with agents.counted_agent(POLICY, *STATES[state]) as agent:
        time.sleep(SETTLE_SECONDS)
        before, slept = agents.cpu_seconds(agent.pid), agents.wake_ups(agent.pid)
        figures = do(command, prints_ns)
        figures["the agent's CPU s"] = agents.cpu_seconds(agent.pid) - before
        figures["wake-ups"] = agents.wake_ups(agent.pid) - slept
    time.sleep(SETTLE_SECONDS)
    figures["events read"] = agent.counts["trace.read"]
    figures["events lost"] = sum(agent.counts[f"trace.{loss}"] for loss in ("lost_overrun", "lost_dropped", "shed_kernel"))
    return figures


def print_row(name, unit, values):
    """`values`: a list for each state, empty where there is nothing to measure."""
    base = statistics.median(values["no agent"]) if values["no agent"] else None
    cells = []
    for state in STATES:
        if not values[state]:
            cells.append(f"{'':21}")
            continue
        middle = statistics.median(values[state])
        digits = 0 if unit.startswith(("events", "wake")) else 1 if unit == "ns" else 3
        text = f"{middle:.{digits}f}"
        if STATES[state] and base:
            change = f"{middle - base:+.0f}, " if unit == "ns" else ""
            text += f" ({change}x{middle / base:.2f})"
        cells.append(f"{text:21}")
    print(f"{name:20} {unit:18} {' '.join(cells)}".rstrip())


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 7
    if len(sys.argv) > 2:
        STATES[OTHER] = ("--syscalls", "bpf")
    with tempfile.TemporaryDirectory() as folder, agents.control_group() as group:
        work = the_work(folder, group)
        states = list(STATES)
        for _, command, prints_ns in work:
            do(command, prints_ns)  # warms the caches
        results = {}
        for number in range(rounds):
            order = states[number % len(states):] + states[:number % len(states)]
            with harness.alone_on_this_machine():
                for name, command, prints_ns in work:
                    for state in order:
                        for unit, value in measure(state, command, prints_ns).items():
                            row = results.setdefault((name, unit), {each: [] for each in STATES})
                            row[state].append(value)
    print(f"{'':39} " + " ".join(f"{state:21}" for state in STATES).rstrip())
    for (name, unit), values in results.items():
        print_row(name, unit, values)


main()
