# SPDX-License-Identifier: Apache-2.0
"""What the agent needs on a host with many containers: its start, its memory, and its CPU time for an event.

    many_containers.py [ROUNDS [AGENT...]]    default 5; needs root and a release build. AGENT: other builds, to compare

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


# As a shim does, a shell that the machine's first process has adopted stays beside each container.
START = """exec 3<&0
{ sh -c 'echo $$ >"$0/cgroup.procs"; exec "$@" <&3' "$@"; :; } >/dev/null &"""


@contextlib.contextmanager
def crowd(containers, processes):
    """Yields the ids of processes that make their calls at a signal. All end with the pipe that is their input."""
    each = processes // containers
    with contextlib.ExitStack() as stack:
        groups = [stack.enter_context(agents.control_group()) for _ in range(containers)]
        end, hold = os.pipe()
        probe = (harness.PROBE, "spawn", each, f"self storm {CALLS} getdents64")
        try:
            for group in groups:
                subprocess.run(["sh", "-c", START, *map(str, ("sh", group, *probe))], stdin=end, check=True)
            yield [pid for group in groups for pid in processes_of(group, lambda pids: len(pids) > each)
                   if not pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text()]
        finally:
            os.close(end)
            os.close(hold)
            for group in groups:
                processes_of(group, lambda pids: not pids)
            time.sleep(5)  # until the machine's first process has waited for them


def processes_of(group, suffices):
    """Waits until they suffice."""
    deadline = time.monotonic() + harness.PATIENCE
    while not suffices(found := [int(pid) for pid in (group / "cgroup.procs").read_text().split()]):
        if time.monotonic() > deadline:
            raise RuntimeError(f"{group} has {len(found)} processes")
        time.sleep(0.05)
    return found


def resident_mb(pid):
    return int(re.search(r"VmRSS:\s*(\d+) kB", pathlib.Path(f"/proc/{pid}/status").read_text())[1]) / 1024


def measure(pids):
    with agents.counted_agent(POLICY) as agent:
        starting = agents.cpu_seconds(agent.pid)
        time.sleep(1)
        before = agents.cpu_seconds(agent.pid)
        for pid in pids:
            os.kill(pid, signal.SIGRTMIN)
        time.sleep(5)
        used = agents.cpu_seconds(agent.pid) - before
        resident = resident_mb(agent.pid)
    return {"ready s": (agent.ready - agent.started) / 1e9, "CPU s of it": starting, "resident MB": resident,
            "us for an event": 1e6 * used / agent.counts["trace.read"], "events": agent.counts["trace.read"]}


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 5
    builds = [harness.AGENT, *sys.argv[2:]]
    results = {}
    for nth in range(rounds):
        with harness.alone_on_this_machine():
            for size in CROWDS:
                with crowd(*size) as pids:
                    # In turn: an agent's events come slower while the processes make their first calls.
                    for build in reversed(builds) if nth % 2 else builds:
                        harness.AGENT = build
                        for what, value in measure(pids).items():
                            results.setdefault((*size, build), {}).setdefault(what, []).append(value)
    print("containers processes " + " ".join(f"{what:>16}" for what in next(iter(results.values()))) + "  agent")
    for (containers, processes, build), values in results.items():
        print(f"{containers:10} {processes:9} " +
              " ".join(f"{statistics.median(each):16.3f}" for each in values.values()) + f"  {build}")


main()
