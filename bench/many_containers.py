# SPDX-License-Identifier: Apache-2.0
"""What the agent needs on a host with many containers: its start, its memory, and its CPU time for an event.

    many_containers.py [ROUNDS]    default 5; needs root and a release build

As many processes are spread over more and more containers, and each makes some watched calls that raise no alarm. Then
there are ten times as many processes. Each figure is the median over the rounds.
"""

import contextlib
import os
import pathlib
import re
import signal
import statistics
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import agents  # noqa: E402
from agents import harness  # noqa: E402

CROWDS = ((1, 1000), (10, 1000), (100, 1000), (1000, 1000), (1000, 10000))  # containers, processes of all
CALLS = 100  # by each process
POLICY = harness.policy(scope="container")  # Shocker listens to getdents64


@contextlib.contextmanager
def crowd(containers, processes):
    """Yields the ids of processes that make their calls at a signal. All end with the pipe that is their input."""
    each = processes // containers
    with contextlib.ExitStack() as stack:
        groups = [stack.enter_context(agents.control_group()) for _ in range(containers)]
        end, hold = os.pipe()
        words = ("sh", "-c", 'echo $$ >"$0/cgroup.procs"; exec "$@"')
        probe = (harness.PROBE, "spawn", each, f"self storm {CALLS} getdents64")
        first = [subprocess.Popen([str(word) for word in (*words, group, *probe)], stdin=end,
                                  stdout=subprocess.DEVNULL) for group in groups]
        try:
            yield [child for process in first for child in children_of(process.pid, each)]
        finally:
            os.close(end)
            os.close(hold)
            for process in first:
                process.wait()


def children_of(process, number):
    """Waits until it has as many."""
    children = pathlib.Path(f"/proc/{process}/task/{process}/children")
    deadline = time.monotonic() + harness.PATIENCE
    while len(found := children.read_text().split()) < number:
        if time.monotonic() > deadline:
            raise RuntimeError(f"process {process} has {len(found)} children instead of {number}")
        time.sleep(0.05)
    return [int(child) for child in found]


def resident_mb(pid):
    return int(re.search(r"VmRSS:\s*(\d+) kB", pathlib.Path(f"/proc/{pid}/status").read_text())[1]) / 1024


def measure(containers, processes):
    with crowd(containers, processes) as pids:
        with agents.counted_agent(POLICY) as agent:
            time.sleep(1)
            before = agents.cpu_seconds(agent.pid)
            for pid in pids:
                os.kill(pid, signal.SIGRTMIN)
            time.sleep(5)
            used = agents.cpu_seconds(agent.pid) - before
            resident = resident_mb(agent.pid)
    return {"ready s": (agent.ready - agent.started) / 1e9, "resident MB": resident,
            "us for an event": 1e6 * used / agent.counts["trace.read"], "events": agent.counts["trace.read"]}


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 5
    results = {}
    for _ in range(rounds):
        with harness.alone_on_this_machine():
            for size in CROWDS:
                for what, value in measure(*size).items():
                    results.setdefault(size, {}).setdefault(what, []).append(value)
    print("containers processes " + " ".join(f"{what:>16}" for what in next(iter(results.values()))))
    for (containers, processes), values in results.items():
        print(f"{containers:10} {processes:9} " + " ".join(f"{statistics.median(each):16.3f}" for each in values.values()))


main()
