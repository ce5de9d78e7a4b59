# SPDX-License-Identifier: Apache-2.0
"""Thousands of live processes, of which the detection task's table holds a third: an attack by any of them is noticed."""

import contextlib
import os
import pathlib
import random
import re
import signal
import time

import harness
from harness import BRUTE, FILES, HIGH_RISK, MERGE_SECONDS, SHOCKER

CONTAINERS = 4
PROCESSES = harness.tries(500)  # in each container
CALLS = ("unshare", "setns", "mount", "umount2", "pivot_root", "chroot", "keyctl", "ptrace")

# What a process can be told to do, by the number of the signal, and the alarm that it must give.
DEEDS = [(f"{how} {what}", alarm)
         for what, alarm in [(f"call {call}", HIGH_RISK) for call in CALLS] +
         [("shocker /etc/hostname", SHOCKER), ("brute 301", BRUTE), ("write /host/target", FILES)]
         for how in ("self", "fork")]


def forks_of_the_machine():
    return int(re.search(r"^processes (\d+)$", pathlib.Path("/proc/stat").read_text(), re.M)[1])


class AmongThousands(harness.InDocker):
    def agent(self):
        return super().agent(calls=CALLS, directories=[str(self.folder)])

    def start_crowd(self, name):
        """A container with many processes that wait for signals. Returns their ids."""
        self.start("-i", "--name", name, "--cap-add", "DAC_READ_SEARCH", "-v", f"{self.folder}:/host",
                   command=("probe", "spawn", str(PROCESSES), *(deed for deed, _ in DEEDS)))
        first = int(self.engine.inspect(name, "{{.State.Pid}}"))
        children = pathlib.Path(f"/proc/{first}/task/{first}/children")
        harness.run("sh", "-c", f"until [ $(wc -w <{children}) = {PROCESSES} ]; do sleep 0.1; done")
        return [int(child) for child in children.read_text().split()]

    def attack(self, agent, attackers, deeds):
        """One process each does each of the deeds, all at once. Returns what was not noticed."""
        expected = set()
        for pid, number in zip(attackers, deeds):
            deed, alarm = DEEDS[number]
            expected.add((alarm, pid if deed.startswith("self") else None))
            os.kill(pid, signal.SIGRTMIN + number)
        deadline = time.monotonic() + 5
        with contextlib.suppress(AssertionError):  # that no more alarms came in time
            while expected:
                _, alarm = agent.alarm(patience=deadline - time.monotonic())
                expected -= {(alarm["event_name"], pid) for pid in (alarm["process_info"][0]["process_pid"], None)}
        return expected

    def campaign(self, agent, crowd, what):
        """In each merge window one attack of each kind, each by a process that has done nothing so far."""
        missed, tries = [], 0
        attackers = iter(random.sample(crowd, 4 * len(CALLS)))
        for window in range(len(CALLS)):
            how = window % 2  # by itself, or by a child that it forks for the purpose
            deeds = [2 * kind + how for kind in (window, len(CALLS), len(CALLS) + 1, len(CALLS) + 2)]
            chosen = [next(attackers) for _ in deeds]
            missed += self.attack(agent, chosen, deeds)
            tries += len(deeds)
            time.sleep(MERGE_SECONDS)
        agent.stop()
        self.assertFalse([line for line in agent.log.seen if "not watched" in line])
        self.assertLessEqual(len(agent.alarms()), tries, "more alarms than attacks")
        print(f"\n  {what}: {tries - len(missed)} of {tries} attacks among {len(crowd)} processes noticed")
        return missed

    def test_every_attack_is_noticed(self):
        crowd = [pid for number in range(CONTAINERS // 2) for pid in self.start_crowd(f"early{number}")]
        agent = self.agent()
        crowd += [pid for number in range(CONTAINERS // 2) for pid in self.start_crowd(f"late{number}")]
        missed = self.campaign(agent, crowd, "at rest")

        agent = self.agent()  # each call may be alarmed again, and nearly all have to be announced
        self.start("--name", "churn", command=("sh", "-c", "while :; do /bin/true; done"))
        forks, began = forks_of_the_machine(), time.monotonic()
        missed += self.campaign(agent, crowd, "in churn")
        rate = (forks_of_the_machine() - forks) / (time.monotonic() - began)
        print(f"  {rate:.0f} forks a second")
        self.assertGreater(rate, 200)
        self.assertEqual(missed, [])
