# SPDX-License-Identifier: Apache-2.0
"""Each detector against the real attack that it is for, and against what looks like it."""

import os
import time

import harness
from harness import BRUTE, FILES, HIGH_RISK, HOST_FILE, MERGE_SECONDS, NAMESPACE, SHOCKER, is_call, named

STRONG = ("--cap-add", "DAC_READ_SEARCH", "--cap-add", "SYS_ADMIN")


class Detectors(harness.InDocker):
    images = ("probe:1", "hub/quiet:1")

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        mount = ("-v", f"{cls.folder}:/host")
        cls.victim = cls.engine.start("--name", "victim", *STRONG, *mount)
        cls.quiet = cls.engine.start("--name", "quiet", *mount, image="hub/quiet:1")

    def test_shocker_from_every_kind_of_process(self):
        ways = {
            **{how: lambda how=how: self.attack(how, "shocker", HOST_FILE) for how in ("self", "fork", "thread")},
            "first": lambda: self.engine.docker("run", "--rm", *harness.OPEN, "--cap-add", "DAC_READ_SEARCH", "probe:1",
                                                "probe", "self", "shocker", HOST_FILE),
        }
        for _ in range(20):
            with self.agent() as agent:
                for how, attack in ways.items():
                    attack()
                    _, alarm = agent.alarm()
                    self.assertEqual(alarm, alarm | {
                        "event_name": SHOCKER, "event_classid": "containerescape_0002", "image_name": "probe:1",
                        "forensic_info": {"sys_call": "open_by_handle_at"}, "file_info": [{"file_path": ""}]})
                    self.assertEqual(alarm["container_name"] == "victim", how != "first")
                    agent.reload()  # a new detection task: its filter would merge the next alarm with this one
                agent.stop()
                self.assertEqual(len(agent.alarms()), len(ways))

    def test_brute_force_begins_at_301_calls_in_a_second(self):
        agent, server = self.agent(), self.server()
        server.do("fork brute 300")
        _, guilty = server.do("fork brute 301")
        _, alarm = agent.alarm()
        self.assertEqual((alarm["event_name"], alarm["forensic_info"]), (BRUTE, {"sys_call": "open_by_handle_at"}))
        agent.stop()
        self.assertEqual(len(agent.alarms()), 1, f"only the process {guilty} of the container is guilty")

    def test_writing_to_a_watched_directory(self):
        agent = self.agent(directories=[str(self.folder)], calls=["ptrace"], whitelist=["quiet"])
        target = self.folder / "target"
        target.write_text("by the host\n")
        self.attack("self", "write", "/host/target", container="quiet")
        server = self.server()
        server.do("self read /host/target")
        server.do("self call ptrace")
        agent.alarm(is_call("ptrace"))
        server.do("self write /host/target")
        _, alarm = agent.alarm()
        self.assertEqual(alarm, alarm | {"event_name": FILES, "event_classid": "containerescape_0004",
                                         "file_info": [{"file_path": str(target)}], "container_name": "victim"})
        self.assertNotIn("forensic_info", alarm)
        agent.stop()
        self.assertEqual(len(agent.alarms()), 2)

    def test_reading_counts_when_the_entry_asks_for_it(self):
        (self.folder / "secret").write_text("x\n")
        agent = self.agent(directories=[f"{self.folder}*/*r"])
        self.attack("self", "read", "/host/secret")
        _, alarm = agent.alarm()
        self.assertEqual(alarm["file_info"], [{"file_path": str(self.folder / "secret")}])

    def test_without_an_engine_the_container_id_alone_is_told(self):
        agent = self.agent(calls=["ptrace"], directories=[str(self.folder)], socket=None)
        self.assertTrue(any("no-engine.sock" in line for line in agent.log.seen), agent.log.seen)
        for deed in (("write", "/host/nameless"), ("call", "ptrace")):
            self.attack("self", *deed)
            _, alarm = agent.alarm()
            self.assertEqual(alarm["resource_info"], {"container_id": self.victim})
            self.assertNotIn("container_name", alarm)
        self.assertEqual(agent.alarms()[0]["file_info"], [{"file_path": str(self.folder / "nameless")}])

    def test_dirty_cow_is_followed_in_silence(self):
        calls = ("bind", "madvise", "ptrace", "accept")
        agent = self.agent(calls=[*calls, "setns"])
        self.attack("self", "dirtycow")
        time.sleep(MERGE_SECONDS)
        self.attack("self", "call", "setns")
        agent.alarm(is_call("setns"))
        self.assertEqual({alarm["event_name"] for alarm in agent.alarms()}, {HIGH_RISK})
        refused = [line for line in agent.log.seen if "always,exit -S madvise -S ptrace" in line]
        self.assertTrue(refused)

    def test_switched_namespaces_are_named_on_every_cycle(self):
        self.start("--name", "shared", "--pid", "host", "--cap-add", "SYS_ADMIN", "--cap-add", "SYS_PTRACE")
        agent = self.agent("--namespace-check")
        inside, entering = self.server(), self.server("shared")
        _, own = inside.do("self unshareuts")
        entering.do(f"self enter {os.getpid()}")
        wanted = {"victim": 0, "shared": 0}
        while min(wanted.values()) < 2:
            _, alarm = agent.alarm(named(NAMESPACE), patience=120)
            self.assertEqual(alarm["process_info"][0]["process_name"], "probe")
            self.assertIn("serverity", alarm)
            wanted[alarm["container_name"]] += 1
        processes = {alarm["process_info"][0]["process_pid"] for alarm in agent.alarms()}
        self.assertEqual(len(processes), 2)
        self.assertIn(harness.host_pid(own, "probe"), processes)
