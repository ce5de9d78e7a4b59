# SPDX-License-Identifier: Apache-2.0
"""How much is lost in the kernel's buffers, by their size, while processes that look like a container's storm.

    losses.py [bpf|tracefs [ROUNDS [STORM...]]]    default bpf, 3, all; needs root and a release build

System calls fill the rings of the BPF program (with tracefs: the trace buffers), forks and exits the trace buffers;
--buffer-kb sets both. Each figure is the worst of the rounds.
"""

import contextlib
import os
import pathlib
import statistics
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import agents  # noqa: E402
from agents import LOAD, control_group, harness  # noqa: E402

SIZES = (64, 128, 256, 512, 1024, 2048, 4096, 8192)
SECONDS = 2
SETTLE_SECONDS = 0.3
SPINNERS = 4

# Calls that detectors watch, or that the policy lists. None does anything with arguments of -1 or 0.
CALLS = ("unshare", "setns", "mount", "pivot_root", "ptrace", "process_vm_writev", "userfaultfd", "open_by_handle_at",
         "getdents64", "bind", "madvise", "accept")
POLICY = harness.policy(CALLS[:8])

# Commands that run at once on each CPU. Nearly each of the calls of "alarms" raises one, which is the dearest thing that
# detection does.
STORMS = {"one call": [("storm", SECONDS, "setns")],
          "alarms": [("storm", SECONDS, "open_by_handle_at")],
          "many calls": [("storm", SECONDS, *CALLS)] * 4,
          "forks": [("forks", SECONDS)] * 4}
LOST = ("trace.lost_overrun", "trace.lost_dropped")
SHED = ("trace.shed_kernel", "trace.shed")


def start_in(group, cpu, words):
    """The shell moves itself; what it then executes is the container's program."""
    command = ["taskset", "-c", cpu, "sh", "-c", 'echo $$ >"$0/cgroup.procs"; exec "$@"', group, LOAD, *words]
    return subprocess.Popen([str(word) for word in command], stdout=subprocess.PIPE, text=True)


def storm(commands, spinners):
    """Returns how many calls or forks were made."""
    with control_group() as group, contextlib.ExitStack() as processes:
        for _ in range(spinners):
            processes.callback(end, subprocess.Popen([str(LOAD), "spin", str(SECONDS + 1)]))
        running = [start_in(group, cpu, words) for cpu in sorted(os.sched_getaffinity(0)) for words in commands]
        for process in running:
            processes.callback(end, process)
        return sum(int(process.communicate(timeout=harness.PATIENCE)[0]) for process in running)


def end(process):
    process.kill()
    process.wait()


def measure(source, size, commands, spinners):
    with agents.counted_agent(POLICY, "--syscalls", source, "--buffer-kb", str(size)) as agent:
        time.sleep(SETTLE_SECONDS)
        made = storm(commands, spinners)
    counts = agent.counts
    return {"made": made, "read": counts["trace.read"], "lost": sum(counts[name] for name in LOST),
            "shed": sum(counts.get(name, 0) for name in SHED), "queues": counts["trace.lost_queue"]}


def main():
    source = sys.argv[1] if len(sys.argv) > 1 else "bpf"
    rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 3
    storms = sys.argv[3:] or STORMS
    print(f"--syscalls {source}, events lost in the kernel's buffers by KiB for each CPU")
    print(f"{'':34}" + "".join(f"{size:9}" for size in SIZES) + "       made       read       shed")
    for spinners in (0, SPINNERS):
        for name in storms:
            results = {size: [] for size in SIZES}
            for _ in range(rounds):
                with harness.alone_on_this_machine():
                    for size in SIZES:
                        results[size].append(measure(source, size, STORMS[name], spinners))
            every = [result for of_size in results.values() for result in of_size]
            title = name + (f", {spinners} busy loops beside" if spinners else "")
            lost = "".join(f"{max(result['lost'] for result in of_size):9}" for of_size in results.values())
            rest = "".join(f"{statistics.median([result[key] for result in every]):11.0f}"
                           for key in ("made", "read", "shed"))
            refused = sum(result["queues"] for result in every)
            print(f"{title:34}{lost}{rest}" + (f"  refused by queues: {refused}" if refused else ""), flush=True)


main()
