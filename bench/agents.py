# SPDX-License-Identifier: Apache-2.0
"""What the measurements of the running agent share: the agent with its CPU time and its counters, and the load."""

import contextlib
import ctypes
import json
import os
import pathlib
import re
import secrets
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.dont_write_bytecode = True
sys.path.insert(0, str(ROOT / "tests/e2e"))

import harness  # noqa: E402

LOAD = harness.BUILD / "bench/load"

libc = ctypes.CDLL(None)


def cpu_seconds(pid):
    """User and system time of all the process's threads: the figure behind /proc/PID/stat, to the nanosecond."""
    clock = ctypes.c_int()
    error = libc.clock_getcpuclockid(pid, ctypes.byref(clock))
    if error != 0:
        raise OSError(error, os.strerror(error))
    return time.clock_gettime(clock.value)


def wake_ups(pid):
    """How often its threads have waited for something."""
    statuses = pathlib.Path(f"/proc/{pid}/task").glob("*/status")
    return sum(int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)", status.read_text(), re.M)[1]) for status in statuses)


@contextlib.contextmanager
def counted_agent(policy, *options, **more):
    """An agent whose alarms are thrown away. After the block its attribute `counts` holds its counters."""
    with tempfile.TemporaryDirectory() as folder:
        statistics = pathlib.Path(folder) / "statistics"
        agent = harness.Agent(policy, "--alarms", "/dev/null", "--stats", str(statistics), *options, **more)
        try:
            yield agent
        finally:
            agent.close()
        agent.counts = json.loads(statistics.read_text())


def hierarchy():
    """The first hierarchy of control groups that takes processes: version 2 before version 1, none that needs settings."""
    mounts = [line.split() for line in pathlib.Path("/proc/mounts").read_text().splitlines()]
    for _, folder, kind, options, *_ in sorted(mounts, key=lambda mount: mount[2] != "cgroup2"):
        if kind in ("cgroup2", "cgroup") and "cpuset" not in options and os.access(folder, os.W_OK):
            return pathlib.Path(folder)
    raise RuntimeError("no control group hierarchy that can be written to")


@contextlib.contextmanager
def control_group():
    """A control group that looks like a container's."""
    parent = hierarchy() / "docker"
    made = not parent.exists()
    group = parent / secrets.token_hex(32)
    group.mkdir(parents=True)
    try:
        yield group
    finally:
        deadline = time.monotonic() + harness.PATIENCE
        while (group / "cgroup.procs").read_text() and time.monotonic() < deadline:
            time.sleep(0.01)  # what has been killed ends a moment later
        group.rmdir()
        if made:
            parent.rmdir()
