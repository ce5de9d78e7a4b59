# SPDX-License-Identifier: Apache-2.0
"""What an operator does with the agent: mistakes, a new policy, a stop at any time."""

import contextlib
import json
import os
import pathlib
import random
import re
import shutil
import signal
import socketserver
import subprocess
import tempfile
import threading
import unittest

import harness


class Grpc(socketserver.BaseRequestHandler):
    """What containerd and the like answer instead of HTTP: settings of HTTP/2 (RFC 9113, 6.5)."""

    def handle(self):
        with contextlib.suppress(OSError):  # the agent's first look only connects
            self.request.recv(4096)
            self.request.sendall(b"\0\0\0\4" + bytes(5))


def entries(content):
    detection = content["container_escape_detect_task"]
    return content["image_white_namelist"], detection["highrisk_calls"], detection["host_directorys"]


def slipped(text, chance):
    """A text as a slip of an operator's hand, or of an editor, leaves it."""
    raw, at = bytearray(text.encode()), chance.randrange(len(text))
    length, more = chance.choice(((0, 1), (1, 0), (1, 1), (20, 0), (0, 5)))
    raw[at:at + length] = bytes(chance.choice((chance.randrange(256), *b'"{}[],:\\0')) for _ in range(more))
    return bytes(raw)


def mutated(text, chance):
    """A policy with a slip in its bytes or in its values."""
    if chance.random() < 0.4:
        return slipped(text, chance)
    document = json.loads(text)
    content, detection = document["content"], document["content"]["container_escape_detect_task"]
    entries(content)[2].append("/etc")
    section = chance.choice((document, content, detection, *entries(content)))
    value = chance.choice((None, True, 0, 1e9, "", "mount", "/srv*/*rw", "/srv*/*z", "unshare\0", [], ["a"], {}, {"a": 1}))
    if isinstance(section, list):
        section.insert(chance.randrange(len(section) + 1), value)
    else:
        key = chance.choice((*section, "new", "Scope"))
        section.pop(key, None) if chance.random() < 0.3 else section.update({key: value})
    return json.dumps(document, indent=chance.choice((None, 1, 4))).encode()


class Operator(unittest.TestCase):
    def command(self, command, policy, *options):
        """Returns the exit code and what it said."""
        done = subprocess.run([harness.AGENT, command, "--policy", policy, "--docker-socket", "none", *options],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        return done.returncode, done.stdout

    def test_a_policy_is_read_again_and_a_bad_one_refused_then_and_at_the_start(self):
        with harness.Agent(harness.policy(("mount", "nosuchcall", "bpf"), ("/etc", "etc"))) as agent:
            self.assertIn("watching 1 of 3 listed calls, 1 of 2 listed directories", agent.ready_line)
            log = "\n".join(agent.log.seen)
            self.assertIn('directory "etc": not an absolute path, it is not watched', log)
            self.assertIn('call "nosuchcall": the kernel has no trace event', log)
            self.assertIn('call "bpf": the detection module does not know it', log)
            self.assertNotIn("Skipping", log)
            code, said = self.command("check", agent.policy, "--json")
            self.assertEqual((code, json.loads(said)["calls"]), (1, {"listed": 3, "watched": 1}))
            self.assertRegex("".join(json.loads(said)["warnings"]), 'call "nosuchcall": the kernel has no trace event')
            code, said = self.command("run", agent.policy, "--require-all")
            self.assertEqual(code, 2)
            self.assertIn("not all of this is watched", said)
            agent.policy.write_text("{")
            agent.process.send_signal(signal.SIGHUP)
            agent.log.wait_for(lambda line: re.search("refused, the running one stays: policy .*: not JSON: line 1", line))
            for command in ("run", "check"):
                code, said = self.command(command, agent.policy)
                self.assertEqual(code, 2)
                self.assertIn("policy.json: not JSON: line 1, column", said)
            agent.policy.write_text(json.dumps(harness.policy(("mount", "setns"))))
            agent.reload()
            self.assertIn("watching 2 of 2 listed calls", agent.log.seen[-1])
            code, said = self.command("check", agent.policy)
            self.assertEqual((code, said.splitlines()[-1]), (0, "It would start."), said)
            self.assertIsNotNone(agent.stop())
            self.assertEqual(agent.exit_code, 0)

    def test_the_configuration_is_read_again_and_what_waits_for_a_start_is_said(self):
        with tempfile.TemporaryDirectory() as folder:
            configuration = pathlib.Path(folder) / "agent.json"
            configuration.write_text('{"realtime": 50, "log-level": "notice"}')
            with harness.Agent(harness.policy(), "--config", str(configuration)) as agent:
                configuration.write_text('{"realtime": 40, "log-level": "debug"}')
                agent.reload()
                self.assertIn("realtime of the configuration takes effect at the next start", "\n".join(agent.log.seen))
                self.assertIn(" debug ", "\n".join(agent.log.seen))
                configuration.write_text('{"realtimes": 40}')
                agent.process.send_signal(signal.SIGHUP)
                agent.log.wait_for(lambda line: 'refused, the running one stays: configuration' in line and
                                   'unknown key "realtimes", is "realtime" meant?' in line)

    def test_no_mutated_configuration_is_taken_with_a_silent_loss(self):
        """Either it is refused with its place, or every value of it is in force."""
        example = '{\n  "policy": "/p",\n  "realtime": 7, "buffer-kb": 64,\n "require-all": true, "alarms-keep": 3\n}'
        chance, taken = random.Random(2), 0
        with tempfile.TemporaryDirectory() as folder:
            configuration = pathlib.Path(folder) / "agent.json"
            for _ in range(200):
                text = slipped(example, chance)
                configuration.write_bytes(text)
                done = subprocess.run([harness.AGENT, "config", "show", "--config", configuration], capture_output=True,
                                      text=True, errors="replace", check=False)
                self.assertIn(done.returncode, (0, 2), text)
                if done.returncode == 2:
                    self.assertRegex(done.stderr, "agent.json[:,] .*(line [0-9]+, column [0-9]+|byte-order)", text)
                    continue
                taken += 1
                shown = dict(re.findall(r"^([a-z-]+): (.*) \(.*agent.json, line", done.stdout, re.MULTILINE))
                document = json.loads(text, strict=False)
                self.assertEqual(shown.keys(), document.keys(), text)
                self.assertEqual([shown[key] for key in document if "policy" not in key],
                                 [json.dumps(value) for key, value in document.items() if "policy" not in key], text)
        self.assertIn(taken, range(10, 150))

    def test_no_mutated_policy_is_taken_with_a_silent_loss(self):
        """What a mutation makes of a policy is refused, or warned of, or still has all of its entries."""
        example = harness.run(harness.AGENT, "policy", "example")
        chance, taken = random.Random(1), []
        with tempfile.TemporaryDirectory() as folder:
            policy = pathlib.Path(folder) / "policy.json"
            for _ in range(300):
                text = mutated(example, chance)
                policy.write_bytes(text)
                done = subprocess.run([harness.AGENT, "policy", "explain", "--policy", policy], capture_output=True,
                                      check=False)
                self.assertIn(done.returncode, (0, 2), text)
                if done.returncode == 2:
                    self.assertRegex(done.stderr, rb"policy .*policy.json: .*(line \d+, column \d+|byte-order)", text)
                elif b"\nwarning: " not in done.stdout:
                    document = json.loads(text, strict=False)
                    taken.append(document)
                    explained = re.findall(rb"^(?:image|call|directory) ", done.stdout, re.MULTILINE)
                    self.assertEqual(len(explained), sum(map(len, entries(document["content"]))), text)
            self.assertEqual(harness.faults(harness.run(harness.AGENT, "policy", "schema"), taken), [])
        self.assertIn(len(taken), range(20, 250), "a test of too few, or of no errors")

    def test_what_goes_on_with_a_doubt_is_said(self):
        with tempfile.TemporaryDirectory() as folder, socketserver.UnixStreamServer(f"{folder}/grpc.sock", Grpc) as grpc:
            threading.Thread(target=grpc.serve_forever, daemon=True).start()
            alarms = pathlib.Path(folder) / "alarms"
            alarms.touch()
            alarms.chmod(0o666)
            options = ("--alarms", str(alarms))
            with harness.Agent(harness.policy(), *options, socket=f"{folder}/grpc.sock") as agent:
                self.assertRegex(agent.ready_line, "of 0 listed directories, Shocker, brute-forced file handles, no engine,")
                log = "\n".join(agent.log.seen)
                self.assertIn("may be changed by every user", log)
                self.assertRegex(log, "container engine at .*grpc.sock: .*; alarms carry no names")
                with harness.Agent(harness.policy(), *options) as second:
                    self.assertIn("is another agent's, too", "\n".join(second.log.seen))
            grpc.shutdown()

    def test_every_detector_sees_its_own_attack(self):
        for source, folder, expected in (("auto", "/tmp", 0), ("tracefs", "/tmp", 0), ("auto", "/nowhere", 2)):
            done = subprocess.run([harness.AGENT, "selftest", "--syscalls", source], capture_output=True, text=True,
                                  check=False, env={**os.environ, "TMPDIR": folder})
            self.assertEqual((done.returncode, done.stdout.count(": alarm")), (expected, 0 if expected else 4), done)

    def test_an_installed_agent_tests_itself_where_there_is_nothing_else(self):
        """In a root directory with the installation and the libraries that it loads: no shell, no compiler, no checkout."""
        with tempfile.TemporaryDirectory() as folder:
            root = pathlib.Path(folder)
            harness.run("cmake", "--install", harness.BUILD, env={**os.environ, "DESTDIR": folder})
            agent = next(root.glob("**/bin/containerescape-agent"))
            for program in (agent, *root.glob("**/containerescape-agent/*.so")):
                for library in re.findall(r"(/\S+) \(0x", harness.run("ldd", program)):
                    if not library.startswith(folder):
                        (root / library[1:]).parent.mkdir(parents=True, exist_ok=True)
                        shutil.copy(library, root / library[1:])
            for name in ("proc", "sys", "dev", "tmp"):
                (root / name).mkdir()
            mounted = "; ".join(f"mount --rbind /{name} $0/{name}" for name in ("proc", "sys", "dev"))
            done = subprocess.run(["unshare", "--mount", "--propagation", "private", "sh", "-ec",
                                   f'{mounted}; exec chroot $0 "$@"', folder, f"/{agent.relative_to(root)}", "selftest"],
                                  capture_output=True, text=True, check=False)
            self.assertEqual(done.returncode, 0, done)
            self.assertEqual(done.stdout.count(": alarm"), len(done.stdout.splitlines()), done)

    def test_it_does_not_start_where_it_would_miss_everything(self):
        for prefix, why in ((("unshare", "--pid", "--fork", "--mount-proc"), "in a process id namespace of its own"),
                            (("setpriv", "--bounding-set=-sys_admin"), "lacks CAP_SYS_ADMIN")):
            done = subprocess.run([*prefix, harness.AGENT, "run", "--policy", harness.ROOT / "packaging/policy.json"],
                                  stderr=subprocess.PIPE, text=True, check=False)
            self.assertEqual(done.returncode, 77)
            self.assertIn(why, done.stderr)

    def test_a_stop_during_the_start_is_clean(self):
        with tempfile.NamedTemporaryFile("w", suffix=".json") as policy:
            policy.write(json.dumps(harness.policy()))
            policy.flush()
            command = [harness.AGENT, "run", "--policy", policy.name, "--docker-socket", policy.name]
            with subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True) as agent:
                self.assertIn("no container engine at", agent.stderr.readline())  # before the first module is loaded
                agent.send_signal(signal.SIGINT)
                self.assertIn("stopped: events_read=", agent.stderr.read())
            self.assertEqual(agent.returncode, 0)
