# SPDX-License-Identifier: Apache-2.0
"""The agent as a target: what stops, blinds, limits or fills it is told of, and does not last."""

import contextlib
import gzip
import json
import os
import pathlib
import resource
import signal
import socket
import subprocess
import tempfile
import time
import unittest

import harness
from harness import inside, is_call

IMPAIRED = "Detection impaired"
NOBODY = 65534


def impaired(cause, text=""):
    return lambda alarm: (alarm["event_name"] == IMPAIRED and alarm["forensic_info"]["cause"] == cause and
                          text in alarm["forensic_info"]["detail"])


class Target(harness.InDocker):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.engine.start("--name", "victim")

    def attacked(self, agent, call="unshare"):
        self.server().do(f"fork call {call}")
        agent.alarm(is_call(call))

    def test_what_is_done_to_it_is_undone_and_told(self):
        agent = self.agent("--alarm-format", "envelope", calls=["unshare", "mount", "setns"])
        instance = harness.INSTANCES / f"containerescape-agent-{agent.pid}"
        limits = resource.prlimit(agent.pid, resource.RLIMIT_NOFILE)

        def stop():
            agent.process.send_signal(signal.SIGSTOP)
            time.sleep(3)
            agent.process.send_signal(signal.SIGCONT)

        for cause, text, deed in (
                ("tracefs tampered with", "tracing_on",
                 lambda: (instance / "tracing_on").write_text("0", encoding="ascii")),
                ("limits tampered with", "NOFILE",
                 lambda: resource.prlimit(agent.pid, resource.RLIMIT_NOFILE, (9, limits[1]))),
                ("limits tampered with", "CPU", lambda: resource.prlimit(agent.pid, resource.RLIMIT_CPU, (0, 3600))),
                ("agent stopped", "no ", stop)):
            with self.subTest(text):
                deed()
                if text != "CPU":  # the same cause, within the minute
                    told = agent.alarm(inside(impaired(cause, text)))[1]
                    self.assertEqual((told["process"], told["container"], told["event"]),
                                     (None, None, {"call": None, "args": None}))
        self.assertEqual(resource.prlimit(agent.pid, resource.RLIMIT_NOFILE), limits)
        self.server().do("fork call unshare")
        agent.alarm(inside(is_call("unshare")))
        agent.stop()
        self.assertEqual(agent.exit_code, 0)

    def test_a_user_of_its_own_is_out_of_reach_of_the_hosts_uid_0_without_capabilities(self):
        agent = self.agent(calls=["unshare"], directories=[str(self.folder)], prefix=harness.unprivileged(NOBODY))
        self.assertIn("1 of 1 listed calls, 1 of 1 listed directories", agent.ready_line)
        self.assertIn(f"\nUid:\t{NOBODY}", pathlib.Path(f"/proc/{agent.pid}/status").read_text())
        self.attacked(agent)
        for words in ("kill -STOP {}", "kill -KILL {}", "prlimit --nofile=9 --pid {}"):
            powerless = ("setpriv", "--inh-caps=-all", "--bounding-set=-all")
            done = subprocess.run([*powerless, *words.format(agent.pid).split()], stderr=subprocess.PIPE, check=False)
            self.assertNotEqual(done.returncode, 0, words)
        agent.stop()
        self.assertEqual(agent.exit_code, 0)
        refused = subprocess.run(["setpriv", f"--reuid={NOBODY}", harness.AGENT, "run", "--policy", agent.policy],
                                 stderr=subprocess.PIPE, text=True, check=False)
        self.assertEqual(refused.returncode, 2)  # not even the policy can be read

    def test_its_real_time_share_is_bounded(self):
        agent = self.agent("--realtime", "5", "--syscalls", "tracefs", calls=["getppid"])
        detection = agent.thread("container_escap")
        self.assertEqual(os.sched_getscheduler(detection) & ~os.SCHED_RESET_ON_FORK, os.SCHED_RR)
        self.server().do("self storm 3000000 getppid")
        agent.alarm(is_call("getppid"))
        time.sleep(2)
        self.assertEqual(os.sched_getscheduler(detection) & ~os.SCHED_RESET_ON_FORK, os.SCHED_RR)
        self.assertGreater(agent.stop()["demoted"], 0)

    def test_a_full_disk_delays_an_alarm_and_shows_it(self):
        with tempfile.TemporaryDirectory() as folder, contextlib.ExitStack() as stack:
            harness.run("mount", "-t", "tmpfs", "-o", "size=64k", "none", folder)
            stack.callback(harness.run, "umount", folder)
            filler = pathlib.Path(folder) / "filler"
            alarms = pathlib.Path(folder) / "alarms"
            with self.agent("--alarms", str(alarms), calls=["unshare"]) as agent:
                with contextlib.suppress(OSError):
                    filler.write_bytes(b"x" * 65536)
                self.server().do("fork call unshare")
                agent.log.wait_for(lambda line: "No space left" in line and '"sys_call":"unshare"' in line)
                filler.unlink()
                harness.wait_until(alarms.read_text)
                self.assertEqual(json.loads(alarms.read_text())["forensic_info"], {"sys_call": "unshare"})
                self.assertEqual(agent.stop()["alarms_lost"], 0)

    def test_a_rotated_alarms_file_is_followed_by_a_new_one(self):
        alarms, rules = self.folder / "alarms.json", self.folder / "logrotate"
        packaged = (harness.ROOT / "packaging/containerescape-agent.logrotate").read_text()
        rules.write_text(packaged.replace("/var/log/containerescape-agent/alarms.json", str(alarms)))
        server = self.server()
        with self.agent("--alarms", str(alarms), calls=["unshare", "setns"], scope="container") as agent:
            for call in ("unshare", "setns"):
                server.do(f"fork call {call}")
                harness.wait_until(lambda: alarms.exists() and alarms.read_text())
                self.assertEqual(alarms.stat().st_mode & 0o777, 0o600)
                harness.run("logrotate", "--force", "--state", str(self.folder / "state"), str(rules))
                self.assertFalse(alarms.exists())
            self.assertEqual(agent.stop()["alarms_lost"], 0)
        lines = [gzip.open(f"{alarms}.2.gz", "rt").read(), pathlib.Path(f"{alarms}.1").read_text()]
        self.assertEqual([json.loads(line)["forensic_info"]["sys_call"] for line in lines], ["unshare", "setns"])

    def test_an_unread_standard_error_holds_up_nothing(self):
        with tempfile.NamedTemporaryFile("w", suffix=".json") as policy:
            policy.write(json.dumps(harness.policy(["unshare"])))
            policy.flush()
            reader, writer = os.pipe()
            self.addCleanup(os.close, reader)
            os.set_blocking(writer, False)
            with contextlib.suppress(BlockingIOError):
                while True:
                    os.write(writer, b"x" * 4096)
            os.set_blocking(writer, True)
            with subprocess.Popen([harness.AGENT, "run", "--policy", policy.name, "--docker-socket", self.engine.socket,
                                   "--log-level", "trace"], stdout=subprocess.PIPE, stderr=writer, text=True) as agent:
                os.close(writer)
                output = harness.Lines(agent.stdout)
                deadline = time.monotonic() + harness.PATIENCE
                while output.queue.empty() and time.monotonic() < deadline:  # until it is ready, which it cannot say
                    self.attack("self", "call", "unshare")
                self.assertIn('"sys_call":"unshare"', output.wait_for(lambda line: True)[1])
                agent.terminate()
                self.assertEqual(agent.wait(harness.PATIENCE), 0)


class Started(unittest.TestCase):
    def test_it_reports_to_the_service_manager_and_finds_an_engine_at_once(self):
        with tempfile.TemporaryDirectory() as folder:
            listener = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
            listener.bind(f"{folder}/notify")
            listener.settimeout(harness.PATIENCE)
            os.environ["NOTIFY_SOCKET"] = f"{folder}/notify"
            self.addCleanup(os.environ.pop, "NOTIFY_SOCKET")
            engine = f"{folder}/engine.sock"
            with harness.Agent(harness.policy(["mount"]), socket=engine) as agent, listener:
                self.assertLess((agent.ready - agent.started) / 1e9, 5)
                told = {listener.recv(100) for _ in range(3)}
                self.assertEqual(told, {b"READY=1", b"WATCHDOG=1"})
                time.sleep(3)  # the attempts are seconds apart by now
                with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as server:
                    server.bind(engine)
                    server.listen()
                    server.settimeout(2)
                    server.accept()[0].close()
