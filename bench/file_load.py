# SPDX-License-Identifier: Apache-2.0
"""What a watched directory costs a process of the host that works with files, in it and elsewhere on the filesystem.

    file_load.py [ROUNDS [AGENT]]    default 5; needs root and a release build. AGENT: another build, to compare

The load has a CPU of its own. A round does all of it once in each state; each figure is the median over the rounds of
each round's quickest loop, which was not interrupted. Trees of three sizes: a common one, the largest that is marked
itself, and one that is larger. An agent that watches nothing is there because its system call program costs each call
a little, too.
"""

import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import agents  # noqa: E402
from agents import LOAD, harness  # noqa: E402

SIZES = (500, 4000, 4200)  # files and directories; of up to 4096 each has a mark
WORK = {"write": 2_000, "reopen": 500, "save": 50}  # operations in a loop
LOOPS = 200
SETTLE_SECONDS = 1.5


def do(how, path):
    """The ns of one operation."""
    done = subprocess.run(["taskset", "-c", "1", LOAD, "file", how, path, str(WORK[how]), str(LOOPS)], check=True,
                          text=True, stdout=subprocess.PIPE)
    return min(map(float, done.stdout.split()))


def work(folder):
    for how in WORK:
        for where in ("elsewhere", "watched"):
            operations = WORK[how] * LOOPS
            yield f"{how} {where}", operations, do(how, folder / where / "load" / "file")


def measure(agent, watches, folder):
    """Yields name, unit and value."""
    if agent is None:
        for name, _, ns in work(folder):
            yield name, "ns", ns
        return
    harness.AGENT = agent
    directories = [str(folder / "watched")] if watches else []
    policy = {"content": {"image_white_namelist": [], "container_escape_detect_task": {
        "scope": "container", "highrisk_calls": [], "host_directorys": directories}}}
    with agents.counted_agent(policy, prefix=("taskset", "-c", "0")) as running:
        time.sleep(SETTLE_SECONDS)
        yield "start to ready", "ms", (running.ready - running.started) / 1e6
        yield "agent's CPU, ready", "ms", agents.cpu_seconds(running.pid) * 1e3
        used = agents.cpu_seconds(running.pid)
        for name, operations, ns in work(folder):
            yield name, "ns", ns
            now = agents.cpu_seconds(running.pid)
            yield f"the agent's CPU, {name}", "ns", (now - used) * 1e9 / operations
            used = now


def make(folder, size):
    for where in ("elsewhere", "watched"):
        (folder / where / "load").mkdir(parents=True)
    for number in range(size // 4):
        directory = folder / "watched" / str(number)
        directory.mkdir()
        for name in "abc":
            (directory / name).touch()


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 5
    builds = {"no agent": (None, False), "nothing watched": (harness.AGENT, False), "this build": (harness.AGENT, True)}
    if len(sys.argv) > 2:
        builds["the other"] = (pathlib.Path(sys.argv[2]), True)
    for size in SIZES:
        results = {}
        with tempfile.TemporaryDirectory() as name:
            make(pathlib.Path(name), size)
            for number in range(rounds):
                order = list(builds)[number % len(builds):] + list(builds)[:number % len(builds)]
                with harness.alone_on_this_machine():
                    for state in order:
                        for what, unit, value in measure(*builds[state], pathlib.Path(name)):
                            results.setdefault((what, unit), {}).setdefault(state, []).append(value)
        print(f"\n{size} files".ljust(37) + "".join(f"{state:>20}" for state in builds))
        print_rows(results, builds)


def print_rows(results, builds):
    for (what, unit), values in results.items():
        base = statistics.median(values["no agent"]) if "no agent" in values else None
        cells = []
        for state in builds:
            middle = statistics.median(values[state]) if state in values else None
            ratio = f" ({middle / base:.3f})" if base and middle else ""
            cells.append(f"{'' if middle is None else f'{middle:.0f}'}{ratio}")
        print(f"{what} ({unit})".ljust(36) + "".join(f"{cell:>20}" for cell in cells))


main()
