# SPDX-License-Identifier: Apache-2.0
"""What an operator does with the agent: mistakes, a new policy, a stop at any time."""

import contextlib
import json
import os
import pathlib
import pty
import random
import re
import resource
import shutil
import signal
import socket
import socketserver
import subprocess
import tempfile
import threading
import time
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


def get(path, where, seconds="10"):
    """The status and the text of an answer of the agent's HTTP server; None when nothing answers."""
    done = subprocess.run(["curl", "-s", "-m", seconds, "-w", "%{http_code}", "--unix-socket", where, f"http://agent{path}"],
                          capture_output=True, text=True, check=False)
    return (int(done.stdout[-3:]), done.stdout[:-3]) if done.returncode == 0 else None


def series(text):
    """Metrics as a program reads them: the values by name with labels."""
    return {name: float(value) for name, value in re.findall(r"^([^# ]\S*) (\S+)$", text, re.MULTILINE)}


class Operator(unittest.TestCase):
    def command(self, command, policy, *options):
        """Returns the exit code and what it said."""
        done = subprocess.run([harness.AGENT, command, "--policy", policy, "--docker-socket", "none", *options],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        return done.returncode, done.stdout

    def taken(self, text, path, *command):
        """What the command says of a file with this text; None when it refuses it, which it does with the place."""
        path.write_bytes(text)
        done = subprocess.run([harness.AGENT, *command, path], capture_output=True, text=True, errors="replace",
                              check=False)
        self.assertIn(done.returncode, (0, 2), text)
        if done.returncode == 2:
            self.assertRegex(done.stderr, path.name + r"[:,] .*(line \d+, column \d+|byte-order)", text)
        return None if done.returncode == 2 else done.stdout

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
        example = '{\n  "policy": "/p",\n  "realtime": 7, "buffer-kb": 64,\n "require-all": true, "alarms-keep": 3,\n'
        example += ' "exceptions": [{"name": "a-1", "image": "b:7", "detectors": ["Shocker"]}]\n}'
        chance, taken = random.Random(2), 0
        with tempfile.TemporaryDirectory() as folder:
            configuration = pathlib.Path(folder) / "agent.json"
            for _ in range(200):
                text = slipped(example, chance)
                shown = self.taken(text, configuration, "config", "show", "--config")
                if shown is None:
                    continue
                taken += 1
                shown = dict(re.findall(r"^([a-z-]+): (.*) \(.*agent.json, line", shown, re.MULTILINE))
                document = json.loads(text, strict=False)
                self.assertEqual(shown.keys(), document.keys(), text)
                self.assertEqual([shown[key] for key in document if "policy" not in key],
                                 [json.dumps(value, separators=(",", ":"), sort_keys=True)
                                  for key, value in document.items() if "policy" not in key], text)
        self.assertIn(taken, range(10, 150))

    def test_no_mutated_policy_is_taken_with_a_silent_loss(self):
        """What a mutation makes of a policy is refused, or warned of, or still has all of its entries."""
        example = harness.run(harness.AGENT, "policy", "example")
        chance, taken = random.Random(1), []
        with tempfile.TemporaryDirectory() as folder:
            policy = pathlib.Path(folder) / "policy.json"
            for _ in range(300):
                text = mutated(example, chance)
                explained = self.taken(text, policy, "policy", "explain", "--policy")
                if explained is not None and "\nwarning: " not in explained:
                    document = json.loads(text, strict=False)
                    taken.append(document)
                    explained = re.findall("^(?:image|call|directory) ", explained, re.MULTILINE)
                    self.assertEqual(len(explained), sum(map(len, entries(document["content"]))), text)
            self.assertEqual(harness.faults("policy.schema.json", taken), [])
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
                self.assertRegex(log, "container engine at .*grpc.sock: speaks HTTP/2, .* try --engine cri=.*; alarms carry no")
                # A kernel that does not tell of its types.
                hidden = (*harness.ALONE, 'mount -t tmpfs none /sys/kernel/btf && exec "$@"', "sh")
                with harness.Agent(harness.policy(), *options, prefix=hidden) as second:
                    log = "\n".join(second.log.seen)
                    self.assertIn("is another agent's, too", log)
                    self.assertRegex(log, r"no BPF \(.*\): calls through the 32-bit entry are not seen")
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

    def test_metrics_agree_with_the_statistics_file_and_promtool_and_the_rules_agree_with_them(self):
        with tempfile.TemporaryDirectory() as folder:
            where, stats = f"{folder}/metrics.sock", pathlib.Path(folder) / "stats.json"
            with harness.Agent(harness.policy(["getppid"]), "--metrics", f"unix:{where}", "--stats", str(stats),
                               "--status-interval", "1") as agent:
                harness.run(harness.AGENT, "selftest")
                agent.alarm(harness.named(harness.BRUTE))
                counters = {}

                def agree():  # no counter changes between two writings of the file
                    nonlocal counters
                    before, self.text = json.loads(stats.read_text()), get("/metrics", where)[1]
                    harness.wait_until(lambda: json.loads(stats.read_text()) != before or not time.sleep(1.1))
                    counters = json.loads(stats.read_text())
                    return counters == before and counters["alarms.sent"] >= 3

                harness.wait_until(agree)
                values = series(self.text)
                for metric, counter in (("calls_read_total", "calls.read"), ("alarms_written_total", "alarms.sent"),
                                        ('events_read_total{kind="trace"}', "trace.read"),
                                        ('alarms_sent_total{class="containerescape_0005"}',
                                         "alarms.sent.containerescape_0005"),
                                        ("alarm_latency_seconds_count", "alarms.sent"),
                                        ('alarm_latency_seconds_bucket{le="+Inf"}', "alarms.sent")):
                    self.assertEqual(values[f"containerescape_{metric}"], counters[counter], metric)
                # In the scope of threads each guess beyond 300 is one, of 400.
                self.assertEqual(values['containerescape_alarms_merged_total{class="containerescape_0005"}'], 99)
                self.assertGreater(values["containerescape_alarm_latency_seconds_sum"], 0)
                harness.run("promtool", "check", "metrics", input=self.text)
                shown = json.loads(harness.run(harness.AGENT, "status", "--json", "--metrics", f"unix:{where}"))
                self.assertEqual((shown["counters"]["alarms.sent"], shown["latency"]["alarms"]), (counters["alarms.sent"],) * 2)
        harness.run("promtool", "check", "rules", harness.ROOT / "packaging/alerts.yml")
        known = {re.match(r"\w+", name)[0] for name in values} | set(re.findall(r"^# TYPE (\S+)", self.text, re.MULTILINE))
        rules = (harness.ROOT / "packaging/alerts.yml").read_text()
        dashboard = json.loads((harness.ROOT / "packaging/dashboard.json").read_text())
        queries = [target["expr"] for panel in dashboard["panels"] for target in panel["targets"]]
        self.assertGreater(len(queries), 15)
        used = set(re.findall(r"\bcontainerescape_\w+", "\n".join((*re.findall("expr: (.*)", rules), *queries))))
        self.assertEqual(used - known, set())

    def test_health_says_why_not_and_clients_that_hang_hold_nothing_up(self):
        with tempfile.TemporaryDirectory() as folder, contextlib.ExitStack() as clients:
            where = f"{folder}/metrics.sock"
            address = ("--metrics", f"unix:{where}")
            with harness.Agent(harness.policy(["mount"]), *address) as agent:
                self.assertEqual(os.stat(where).st_mode & 0o7777, 0o600)
                self.assertEqual(get("/healthz", where), (200, "ok\n"))
                self.assertEqual(get("/other", where)[0], 404)
                done = subprocess.run([harness.AGENT, "status", *address], capture_output=True, text=True, check=False)
                self.assertEqual(done.returncode, 0, done)
                self.assertRegex(done.stdout, "watching: 1 of 1 listed calls.*\n(.*\n)*health: good\n")
                code, said = self.command("run", agent.policy, *address)
                self.assertEqual((code, "something else is there already" in said), (2, True), said)
                agent.policy.write_text(json.dumps(harness.policy(["mount", "nosuchcall"], ["etc"])))
                agent.reload()
                self.assertEqual(get("/healthz", where), (503, "1 of 2 listed calls are not watched\n"
                                                               "1 of 1 listed directories are not watched\n"))
                resource.prlimit(agent.pid, resource.RLIMIT_CPU, (0, 3600))
                harness.wait_until(lambda: "in the last minute: limits tampered with, " in get("/healthz", where)[1])
                done = subprocess.run([harness.AGENT, "status", *address], capture_output=True, text=True, check=False)
                self.assertEqual(done.returncode, 1, done)
                self.assertRegex(done.stdout, "NOT GOOD\n(.*\n)*  in the last minute: limits tampered with, ")
                # Six send a letter at a time; the others nonsense, a line that does not end, nothing.
                hanging = []
                for words in [b"GET /"] * 6 + [bytes(range(256)) * 16, b"GET /" + b"a" * 100000, b""] * 4:
                    hanging.append(clients.enter_context(socket.socket(socket.AF_UNIX)))
                    hanging[-1].connect(where)
                    hanging[-1].setblocking(False)
                    with contextlib.suppress(OSError):
                        hanging[-1].send(words)

                def answers():
                    for client in hanging[:6]:
                        with contextlib.suppress(OSError):
                            client.send(b"a")
                    return get("/healthz", where, "1")

                began = time.monotonic()
                harness.wait_until(answers)
                self.assertLess(time.monotonic() - began, 30)
                for _ in range(6):  # and those that are connected when it stops
                    clients.enter_context(socket.socket(socket.AF_UNIX)).connect(where)
                agent.stop()
                self.assertEqual(agent.exit_code, 0)
                self.assertLess(agent.stop_seconds, 1.5)
                self.assertFalse(os.path.exists(where))
            done = subprocess.run([harness.AGENT, "status", *address], capture_output=True, text=True, check=False)
            self.assertEqual((done.returncode, "no agent at" in done.stderr), (2, True), done)

    def test_a_terminal_is_told_what_is_being_done_until_it_is(self):
        pid, terminal = pty.fork()
        if pid == 0:
            os.execv(harness.AGENT, ["agent", "check"])
        shown = ""
        with contextlib.suppress(OSError):  # how a terminal ends
            while text := os.read(terminal, 4096):
                shown += text.decode()
        os.waitpid(pid, 0)
        os.close(terminal)
        self.assertIn("\r\033[Kstarting detection\r", shown)
        self.assertRegex(shown, "\r\033\\[K\rkernel: ")

    def test_each_mistake_in_a_policy_is_named(self):
        """What is wrong is refused, and what can do nothing, or other than was meant, is told."""
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder) / "policy.json"
            for text, code, wanted in (
                    ("{}", 2, ("content: is missing", '"containerescape-agent policy example" prints a policy')),
                    ("\ufeff" + json.dumps(harness.policy()), 2, ("begins with a byte-order mark",)),
                    (json.dumps(harness.policy(["mount", "mount"], ["/etc/hostname", "/proc"], ["shop/*"])), 1,
                     ('"mount" is there twice', '"/etc/hostname": is not a directory, it alone is watched',
                      '"/proc": is the host\'s own', 'image "shop/*": is compared as it stands, it is no pattern')),
                    (json.dumps(harness.policy()), 1, ("may be changed by every user of this host", "watching 0 of 0 listed "
                                                       "calls, 0 of 0 listed directories, Shocker, brute-forced"))):
                path.write_text(text)
                path.chmod(0o666 if "every user" in wanted[0] else 0o600)
                done, said = self.command("check", path)
                self.assertEqual(done, code, said)
                for each in wanted:
                    self.assertIn(each, said)
            done, said = self.command("run", path, "--log-level", "warn")
            self.assertEqual((done, "warn not in {none,fatal," in said), (2, True), said)

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


class Exceptions(harness.InDocker):
    images = ("nginx", "evil/nginx")
    CALLS = ("unshare", "setns", "mount", "umount2", "ptrace", "pivot_root", "chroot", "capset", "keyctl",
             "mknodat", "process_vm_readv")

    def configure(self, *rules):
        self.configuration = self.folder / "agent.json"
        self.configuration.write_text(json.dumps({"exceptions": rules}))
        return "--config", str(self.configuration), "--stats", str(self.folder / "stats")

    def residents(self):
        """One program of each image, and another one of the first."""
        containers = [self.start(image=image, command=("sh", "-c", "busybox cp /bin/probe /bin/backup; exec sleep 100000"))
                      for image in self.images]
        return [self.server(*program) for program in ((containers[0], ("probe", "serve")), (containers[1], ("probe", "serve")),
                                                      (containers[0], ("/bin/backup", "serve")))]

    def test_what_is_excepted_is_counted_and_not_delivered_and_its_namesake_is(self):
        options = self.configure({"name": "web", "image": "docker.io/library/nginx:latest"})
        with self.agent(*options, calls=self.CALLS, scope="container") as agent:
            excepted, evil, _ = self.residents()
            for call in self.CALLS:
                excepted.do(f"self call {call}")
                evil.do(f"self call {call}")
            for call in self.CALLS:
                agent.alarm(harness.is_call(call))
            counts = agent.stop()
        self.assertEqual([alarm["image_name"] for alarm in agent.alarms()], ["evil/nginx"] * len(self.CALLS))
        self.assertEqual(counts["excepted"], len(self.CALLS), counts)
        self.assertEqual(json.loads((self.folder / "stats").read_text())["report.excepted.web"], len(self.CALLS))

    def test_what_tune_suggests_silences_just_that_after_a_reload(self):
        first, *calls = self.CALLS
        options = (*self.configure(), "--alarm-format", "envelope", "--show-excepted")
        with self.agent(*options, calls=self.CALLS, scope="container") as agent:
            programs = self.residents()
            for program in programs[:2]:
                program.do(f"self call {first}")
                _, envelope = agent.alarm()
                self.assertNotIn("excepted", envelope)
            alarms = self.folder / "alarms.json"
            alarms.write_text("\n".join([*agent.output.seen, '{"event_name"', ""]))
            said = harness.run(harness.AGENT, "tune", alarms, "--config", self.configuration)
            self.assertIn("2 alarms in 3 lines\n1 lines are no alarms: line 3\n", said)
            rules = [json.loads(line) for line in said.splitlines() if line.startswith("  {")]
            self.assertCountEqual([rule["image"] for rule in rules], self.images)
            rule = next(rule for rule in rules if rule["image"] == "nginx")
            self.configure(rule)
            agent.reload()
            for program in programs[:2]:
                for call in calls:
                    program.do(f"self call {call}")
            time.sleep(harness.MERGE_SECONDS)  # alarms of one call and container are merged, whatever the program
            for call in calls:
                programs[2].do(f"self call {call}")
            expected = {(image, program, call): excepted for call in calls for image, program, excepted in (
                ("nginx", "/bin/probe", rule["name"]), ("evil/nginx", "/bin/probe", None),
                ("nginx", "/bin/backup", None))}
            seen = {}
            while len(seen) < len(expected):
                _, one = agent.alarm()
                seen[one["container"]["image"], one["process"]["exe"], one["event"]["call"]] = one.get("excepted")
            self.assertEqual(seen, expected)
