# SPDX-License-Identifier: Apache-2.0
"""What asking container engines costs the agent: its start and its memory, while ten containers run.

    engines.py [ROUNDS]    default 5; needs root, a release build, and what the end-to-end tests need

Each figure is the median over the rounds. Of the resident memory, what is the agent's own is told apart: the pages of
libraries are shared with other programs.
"""

import pathlib
import re
import statistics
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
from agents import harness  # noqa: E402
import cri  # noqa: E402

CONTAINERS = 10
SETTLE_SECONDS = 3


def measure(*options):
    """Milliseconds to ready, and MB: resident, of them its own."""
    with harness.Agent(harness.policy(scope="container"), *options) as agent:
        start = (agent.ready - agent.started) / 1e6
        time.sleep(SETTLE_SECONDS)
        status = pathlib.Path(f"/proc/{agent.pid}/status").read_text()
        own = int(re.search(r"RssAnon:\s+(\d+)", status)[1]) / 1024
        return start, agent.memory(), own


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 5
    with harness.alone_on_this_machine(), tempfile.TemporaryDirectory() as folder:
        folder = pathlib.Path(folder)
        engine = harness.Engine()
        engine.make_image("probe:1")
        containerd = cri.Containerd(folder)
        containerd.load(harness.make_archive(folder / "image"), (
            "podman", "--root", folder / "podman", "--runroot", folder / "podman-run", "--storage-driver", "vfs",
            "--cgroup-manager=cgroupfs", "--events-backend=file"))
        pod = cri.Pod(containerd, "cart")
        try:
            for number in range(CONTAINERS // 2):
                engine.start()
                pod.start(f"web{number}", command=("/bin/sleep", "100000"))
            asked = {"none": ("--engine", "none"), "docker": ("--engine", f"docker={engine.socket}"),
                     "cri": ("--engine", f"cri={containerd.socket}")}
            asked["docker and cri"] = asked["docker"] + asked["cri"]
            figures = {name: [] for name in asked}
            for _ in range(rounds):
                for name, options in asked.items():
                    figures[name].append(measure(*options))
        finally:
            pod.close()
            containerd.close()
            engine.close()
    print(f"{'asked':16}{'ready, ms':>10}{'resident, MB':>14}{'own, MB':>9}")
    for name, rows in figures.items():
        start, resident, own = (statistics.median(column) for column in zip(*rows))
        print(f"{name:16}{start:10.0f}{resident:14.1f}{own:9.1f}")


if __name__ == "__main__":
    main()
