# SPDX-License-Identifier: Apache-2.0
"""How long it takes from a call in a container to the alarm's line, on a machine that does nothing else.

    latency.py [ROUNDS [AGENT]]    default 20; needs root and a release build. AGENT: another build, to compare

In each round each build is started anew. Its first alarm finds everything cold: code that has not run before, files of
which nothing is mapped. Each of the next finds what the second before it has left in the machine's caches. The figures
are the agent's own, from the kernel's time of the call to the end of the write.
"""

import json
import pathlib
import statistics
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import agents  # noqa: E402
from agents import harness  # noqa: E402

CALLS = ("unshare", "setns", "mount", "umount2", "ptrace", "open_by_handle_at")
SUM = "alarms.latency_us_sum"


def counters(path, sent):
    """Once so many alarms are in the statistics, which come each second."""
    deadline = time.monotonic() + harness.PATIENCE
    while time.monotonic() < deadline:
        if path.exists() and (counts := json.loads(path.read_text())).get("alarms.sent", 0) >= sent:
            return counts
        time.sleep(0.1)
    raise RuntimeError(f"there is no alarm {sent} in the statistics")


def measure(build, group, folder):
    """The microseconds of each alarm of one agent."""
    harness.AGENT, path = build, pathlib.Path(folder) / "statistics"
    path.unlink(missing_ok=True)
    with harness.Agent(harness.policy(CALLS, scope="container"), "--alarms", f"{folder}/alarms", "--stats", str(path),
                       "--status-interval", "1"):
        server = harness.Server("sh", "-c", 'echo $$ >"$0/cgroup.procs"; exec "$@"', group, harness.PROBE, "serve")
        try:
            before = 0
            for number, call in enumerate(CALLS, 1):
                time.sleep(1)
                server.do(f"self call {call}")
                after = counters(path, number)[SUM]
                yield after - before
                before = after
        finally:
            server.close()


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 20
    builds = [harness.AGENT, *map(pathlib.Path, sys.argv[2:])]
    results = {build: {"first": [], "next": []} for build in builds}
    with tempfile.TemporaryDirectory() as folder, agents.control_group() as group:
        for number in range(rounds):
            with harness.alone_on_this_machine():
                for build in builds[number % len(builds):] + builds[:number % len(builds)]:
                    first, *others = measure(build, group, folder)
                    results[build]["first"].append(first)
                    results[build]["next"] += others
    for build, kinds in results.items():
        print(build)
        for kind, values in kinds.items():
            values.sort()
            print(f"  {kind:5}  {len(values):4} alarms: median {statistics.median(values):.0f} us, "
                  f"99 % within {values[(len(values) - 1) * 99 // 100]} us, the longest {values[-1]} us")


main()
