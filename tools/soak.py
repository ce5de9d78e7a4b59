# SPDX-License-Identifier: Apache-2.0
"""The agent under load for a long time: churn, storms, engine restarts, new policies, and an attack every few seconds.

    soak.py [--minutes 20] [--adversary] [--seed N] [--build DIR] [--out DIR]

With --adversary the attacks are those of adversary.py, by an attacker that knows how the agent works: each technique at
random, from a container of its own, against the alarms that must come of it, beside more storms and ordinary work. The
seed, which is printed, decides their order. The agent runs as a user of its own and has the scope "container".

Writes samples.csv, soak.svg, alarms.jsonl, agent.log and verdict.txt into the folder of --out (build/soak). Exits with 1 when a check
fails. Works with sanitized builds, too: what they report fails the run; their memory and descriptors are not judged.
"""

import argparse
import csv
import ctypes
import itertools
import json
import os
import pathlib
import random
import re
import signal
import statistics
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
ADDR_NO_RANDOMIZE = 0x0040000  # personality(2)

SAMPLE_SECONDS = 10
ATTACK_SECONDS = 4  # alarms of one name are merged for two seconds
RELOAD_SECONDS = 25
STORM_SECONDS = 60
STORM_CALLS = 300000
ENGINE_SECONDS = 200
ATTACK_PATIENCE = 15

# A high-risk call is alarmed once an hour: each gives one attack. The others are repeated.
CALLS = ("setns", "mount", "umount2", "pivot_root", "chroot", "keyctl", "process_vm_readv")
KINDS = {"shocker /etc/hostname": "Shocker attack", "brute 301": "Bruteforce syscall attack",
         "write /host/target": "Container file escape attack"}
HIGH_RISK = "High-Risk System Invocation"
NAMESPACE = "Namespace switch attack"
DEEDS = ([(f"{how} {what}", name) for what, name in KINDS.items() for how in ("self", "fork")] +
         [(f"self call {call}", HIGH_RISK) for call in CALLS])

# What may fluctuate, and no more: a reload ends the detection task's thread and starts it again; /proc files, sockets
# of engine calls and the mounts that a path is looked up through are open for moments.
THREAD_SLACK = 2
DESCRIPTOR_SLACK = 12
MEMORY_SLACK_KIB = 1024


def sanitizer(build):
    """"thread", "address,undefined" or ""."""
    cache = (build / "CMakeCache.txt").read_text()
    found = re.search(r"^CE_SANITIZE:\w+=(.*)$", cache, re.M)
    return found[1] if found else ""


class Crowd:
    """A container with processes that wait for a signal each that tells what to do."""

    def __init__(self, engine, name, count, deeds, *options):
        engine.start("-i", "--name", name, *options, command=("probe", "spawn", str(count), *deeds))
        first = int(engine.inspect(name, "{{.State.Pid}}"))
        children = pathlib.Path(f"/proc/{first}/task/{first}/children")
        deadline = time.monotonic() + harness.PATIENCE
        while len(children.read_text().split()) < count:
            if time.monotonic() > deadline:
                raise AssertionError(f"{name} did not fork its {count} processes")
            time.sleep(0.1)
        self.pids = [int(pid) for pid in children.read_text().split()]


class Worker(threading.Thread):
    """Does `step` until it is told to stop; what an engine that restarts refuses is counted."""

    def __init__(self, step):
        super().__init__(daemon=True)
        self.step, self.stopping, self.done, self.failed = step, threading.Event(), 0, 0

    def run(self):
        while not self.stopping.is_set():
            try:
                self.step()
                self.done += 1
            except RuntimeError:
                self.failed += 1
                self.stopping.wait(0.5)

    def finish(self):
        self.stopping.set()
        self.join()


class Sampler(threading.Thread):
    """What the agent uses, and its counters, every few seconds."""

    def __init__(self, pid, statistics):
        super().__init__(daemon=True)
        self.pid, self.statistics = pid, statistics
        self.rows, self.stopping, self.began = [], threading.Event(), time.monotonic()

    def run(self):
        while not self.stopping.wait(SAMPLE_SECONDS):
            try:
                self.rows.append(self.sample())
            except (FileNotFoundError, ProcessLookupError):
                return  # it has ended; the exit code tells

    def sample(self):
        status = pathlib.Path(f"/proc/{self.pid}/status").read_text()
        fields = pathlib.Path(f"/proc/{self.pid}/stat").read_text().rpartition(")")[2].split()
        row = {"seconds": round(time.monotonic() - self.began, 1),
               "rss_kib": int(re.search(r"VmRSS:\s*(\d+)", status)[1]),
               "threads": int(re.search(r"Threads:\s*(\d+)", status)[1]),
               "cpu_seconds": (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")}
        kinds = self.descriptors()
        row["descriptors"] = sum(kinds.values())
        row.update({f"fd.{kind}": count for kind, count in sorted(kinds.items())})
        row.update(json.loads(self.statistics.read_text()))
        return row

    def descriptors(self):
        kinds = {}
        for link in pathlib.Path(f"/proc/{self.pid}/fd").iterdir():
            try:
                target = os.readlink(link)
            except OSError:
                continue
            kind = (target.split(":[")[0] if re.match(r"\w+:\[\d", target) else
                    "tracefs" if "/tracing/" in target or target.endswith("trace_pipe_raw") else
                    "proc" if target.startswith("/proc") else
                    "file" if target.startswith("/") else target)
            kinds[kind] = kinds.get(kind, 0) + 1
        return kinds

    def finish(self):
        self.stopping.set()
        self.join()


class Plain:
    """Attacks by many processes of one container, each told by a signal what to do."""

    def __init__(self, engine, watched, seconds):
        mount = ("-v", f"{watched}:/host")
        self.engine, self.watched = engine, watched
        self.crowd = Crowd(engine, "crowd", 700, [deed for deed, _ in DEEDS], "--cap-add", "DAC_READ_SEARCH", *mount)
        self.switcher = Crowd(engine, "switcher", 1, ["self unshareuts"], "--cap-add", "SYS_ADMIN")
        self.attacks, self.missed, self.latencies = 0, [], []
        self.once = [number for number, (_, name) in enumerate(DEEDS) if name == HIGH_RISK]
        self.again = itertools.cycle(number for number, (_, name) in enumerate(DEEDS) if name != HIGH_RISK)
        self.every = max(2, int(seconds / ATTACK_SECONDS / (len(self.once) + 1)))
        self.attackers = itertools.cycle(random.sample(self.crowd.pids, len(self.crowd.pids)))
        self.workers = ()
        self.running = None

    def agent(self, *options):
        self.running = harness.Agent(harness.policy(CALLS, [self.watched]), "--namespace-check", *options,
                                     socket=self.engine.socket)
        os.kill(self.switcher.pids[0], signal.SIGRTMIN)
        return self.running

    def attack(self):
        begun = time.monotonic()
        number = self.once.pop() if self.once and self.attacks % self.every == self.every - 1 else next(self.again)
        self.do(next(self.attackers), number)
        time.sleep(max(0.0, begun + ATTACK_SECONDS - time.monotonic()))

    def do(self, pid, number):
        deed, name = DEEDS[number]

        def is_it(alarm):
            own = alarm["process_info"][0]["process_pid"] == pid
            return alarm["event_name"] == name and own == deed.startswith("self")
        self.attacks += 1
        begun = time.monotonic_ns()
        os.kill(pid, signal.SIGRTMIN + number)
        try:
            arrived, _ = self.running.alarm(is_it, ATTACK_PATIENCE)
            self.latencies.append((arrived - begun) / 1e6)
        except AssertionError:
            self.missed.append(f"{deed} by {pid} at {(begun - self.running.started) / 1e9:.0f} s")

    def finish(self):
        """Every attack's alarm was waited for."""

    def check(self):
        late = statistics.median(self.latencies) if self.latencies else 0
        yield ("every attack is alarmed", self.attacks and not self.missed,
               f"{self.attacks - len(self.missed)} of {self.attacks}, median {late:.1f} ms, "
               f"maximum {max(self.latencies, default=0):.1f} ms; missed: {self.missed}")
        alarms = self.running.alarms()
        switched = sum(alarm["event_name"] == NAMESPACE for alarm in alarms)
        yield "the switched namespace is told on and on", switched >= 2, f"{switched} times"
        extra = [alarm for alarm in alarms if alarm.get("container_name") not in (
            ("switcher",) if alarm["event_name"] == NAMESPACE else ("crowd",))]
        yield "no other container is accused", not extra, f"{len(extra)} other alarms, the first: {extra[:1]}"


class Soak:
    def __init__(self, engine, watched, out, attacker):
        self.engine, self.out, self.attacker = engine, out, attacker
        self.storms, self.reloads, self.restarts = 0, 0, 0
        self.refused = []
        self.serial = itertools.count()
        self.stormers = []
        for cpu in sorted(os.sched_getaffinity(0)):
            stormer = Crowd(engine, f"storm{cpu}", 1, [f"self storm {STORM_CALLS} getdents64"])
            os.sched_setaffinity(stormer.pids[0], {cpu})
            self.stormers.append(stormer.pids[0])
        engine.start("--name", "guest", "-v", f"{watched}:/host")
        self.statistics = out / "statistics.json"
        self.agent = attacker.agent("--stats", str(self.statistics), "--status-interval", str(SAMPLE_SECONDS))

    def live_and_die(self):
        self.engine.docker("run", "--rm", "--network", "none", "--name", f"churn{next(self.serial)}", "probe:1", "sh",
                           "-c", "ls / >/dev/null; for i in 1 2 3 4 5; do /bin/cat /etc/hostname >/dev/null; done")
        self.engine.docker("exec", "guest", "sh", "-c", "ls /host >/dev/null; /bin/echo x >/tmp/x")

    def restart_engine(self):
        self.engine.restart()
        self.restarts += 1

    def run(self, seconds):
        """Attacks, storms, reloads and engine restarts in one thread: no attack falls into a change of the policy."""
        end = time.monotonic() + seconds
        due = {self.storm: STORM_SECONDS / 2, self.reload: RELOAD_SECONDS, self.restart: ENGINE_SECONDS / 2}
        due = {what: time.monotonic() + first for what, first in due.items()}
        period = {self.storm: STORM_SECONDS, self.reload: RELOAD_SECONDS, self.restart: ENGINE_SECONDS}
        while time.monotonic() < end and self.agent.process.poll() is None:
            begun = time.monotonic()
            for what, when in due.items():
                if begun >= when:
                    what()
                    due[what] = begun + period[what]
            self.attacker.attack()

    def storm(self):
        for pid in self.stormers:
            os.kill(pid, signal.SIGRTMIN)
        self.storms += 1

    def reload(self):
        try:
            self.agent.reload()
            self.reloads += 1
        except AssertionError as problem:  # it has ended, or hangs
            self.refused.append(str(problem))

    def restart(self):
        threading.Thread(target=self.restart_engine, daemon=True).start()


def quarter(rows, number, key):
    """The values of a column in one quarter of the run, the first being 0."""
    size = len(rows) / 4
    return [row[key] for row in rows[int(number * size):int((number + 1) * size)]]


def steady(rows, key, slack):
    """After the first quarter: the same minimum in the second and the last, and no value further away than the slack. A
    call to the engine that is under way takes three descriptors; what is never given back raises the minimum, too."""
    first, last = min(quarter(rows, 1, key)), min(quarter(rows, 3, key))
    rest = [row[key] for row in rows[len(rows) // 4:]]
    text = f"minimum {first:g} in the second quarter, {last:g} in the last, at most {max(rest)} in between"
    return abs(last - first) <= 1 and max(abs(value - first) for value in rest) <= slack, text


def judge(soak, rows, counts, churn, others, checked):
    """(what, whether it holds, what was seen), for each check."""
    log, alarms, final = soak.agent.log.seen, soak.agent.alarms(), json.loads(soak.statistics.read_text())
    yield "exit code", soak.agent.exit_code == 0, str(soak.agent.exit_code)
    left = [name for name in harness.instances() if name.endswith(f"-{soak.agent.pid}")]
    yield "no tracefs instance left", not left, f"{left}"
    reports = [line for line in log if re.search(r"(ERROR|WARNING): \w+Sanitizer|runtime error:", line)]
    yield "no report of a sanitizer", not reports, f"{reports[:3]} ({checked or 'not a sanitized build'})"

    yield from soak.attacker.check()
    yield "every new policy is taken", not soak.refused, f"{soak.refused}"

    yield "threads", *steady(rows, "threads", THREAD_SLACK)
    if not checked:
        yield "descriptors", *steady(rows, "descriptors", DESCRIPTOR_SLACK)
        second, last = (statistics.median(quarter(rows, number, "rss_kib")) for number in (1, 3))
        yield ("memory", last <= second + MEMORY_SLACK_KIB,
               f"median {second / 1024:.1f} MiB in the second quarter, {last / 1024:.1f} in the last, "
               f"maximum {max(row['rss_kib'] for row in rows) / 1024:.1f}")

    parts = {key: final[key] for key in ("calls.delivered", "trace.not_container", "trace.shed", "calls.refused")}
    yield ("every call read is accounted for", final["calls.read"] == sum(parts.values()),
           f"{final['calls.read']} = {parts}")
    stormed = soak.storms * len(soak.stormers) * STORM_CALLS
    known = final["calls.read"] + final["trace.shed_kernel"] + final["trace.lost_dropped"]
    yield "every call of the storms was read or is counted as lost", known >= stormed, f"{stormed} of {known}"
    sent, lost = counts.get("alarms_sent"), counts.get("alarms_lost")
    yield "alarms", sent == len(alarms) and lost == 0, f"{sent} sent, {len(alarms)} arrived, {lost} lost"

    lived = sum(worker.done for worker in churn)
    yield ("there was load",
           lived and soak.storms and soak.reloads and soak.restarts and all(one.done for one in others),
           f"{lived} containers lived and died ({sum(worker.failed for worker in churn)} refused by the engine), "
           f"{soak.storms} storms, {soak.reloads} policies, {soak.restarts} engine restarts" +
           "".join(f", {one.done} times {one.step.__name__} ({one.failed} failed)" for one in others))


def write_samples(rows, out):
    keys = list(dict.fromkeys(itertools.chain.from_iterable(rows)))
    with open(out / "samples.csv", "w", newline="", encoding="utf-8") as file:
        writer = csv.DictWriter(file, keys, restval=0)
        writer.writeheader()
        writer.writerows(rows)


def draw(rows, title, out):
    def rate(key, scale=1.0):
        values = [row.get(key, 0) for row in rows]
        spans = [later["seconds"] - row["seconds"] for row, later in zip(rows, rows[1:])]
        return [None] + [scale * (after - before) / span for before, after, span in zip(values, values[1:], spans)]
    panels = [("resident, MiB", {"rss": [row["rss_kib"] / 1024 for row in rows]}),
              ("threads, descriptors", {key: [row[key] for row in rows] for key in ("threads", "descriptors")}),
              ("CPU, percent of one", {"cpu": rate("cpu_seconds", 100)}),
              ("events a second", {"read": rate("trace.read"), "delivered": rate("trace.delivered"),
                                   "excluded in the kernel": rate("trace.shed_kernel")}),
              ("lost a second", {key: rate(key) for key in ("trace.shed", "queue.lost", "trace.lost_dropped")}),
              ("alarms", {"sent": [row.get("alarms.sent", 0) for row in rows]})]
    (out / "soak.svg").write_text(chart.svg(title, [row["seconds"] for row in rows], panels))


def soak_it(minutes, out, checked, seed):
    engine = harness.Engine("--live-restore")
    try:
        with tempfile.TemporaryDirectory(prefix="ce-watched.") as watched:
            engine.make_image("probe:1")
            attacker = Plain(engine, watched, minutes * 60) if seed is None else adversary.Siege(engine, watched, seed)
            soak = Soak(engine, watched, out, attacker)
            sampler = Sampler(soak.agent.pid, soak.statistics)
            churn = [Worker(soak.live_and_die) for _ in range(2)]
            others = [Worker(step) for step in attacker.workers]
            try:
                for thread in (sampler, *churn, *others):
                    thread.start()
                try:
                    soak.run(minutes * 60)
                finally:
                    for thread in (*others, *churn, sampler):
                        thread.finish()
                attacker.finish()
                counts = soak.agent.stop() or {}  # none when it did not stop by itself
                results = list(judge(soak, sampler.rows, counts, churn, others, checked))
            finally:
                soak.agent.close()
                (out / "alarms.jsonl").write_text("\n".join(soak.agent.output.seen) + "\n", errors="surrogateescape")
                (out / "agent.log").write_text("\n".join(soak.agent.log.seen) + "\n", errors="surrogateescape")
    finally:
        engine.close()
    write_samples(sampler.rows, out)
    draw(sampler.rows, f"{minutes:g} minutes, {harness.BUILD.name}", out)
    return results


def options_of_the_command_line():
    words = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    words.add_argument("--minutes", type=float, default=20)
    words.add_argument("--build", type=lambda text: pathlib.Path(text).resolve(),
                       default=os.environ.get("CE_BUILD_DIR", str(ROOT / "build/release")))
    words.add_argument("--adversary", action="store_true")
    words.add_argument("--seed", type=int, default=random.getrandbits(32))
    words.add_argument("--out", type=pathlib.Path, default=ROOT / "build/soak")
    options = words.parse_args()
    if options.minutes < 2:
        words.error("two minutes at least: everything happens once by then")
    return options


def main(options):
    if reason := run.why_not():
        sys.exit(f"soak: {reason}")
    out = options.out
    out.mkdir(parents=True, exist_ok=True)
    checked = sanitizer(harness.BUILD)
    if checked:
        os.environ.update(ASAN_OPTIONS="halt_on_error=1:detect_leaks=1",
                          UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1",
                          TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1")
        # Thread sanitizer's fixed address ranges collide with what a kernel with much randomness chooses.
        ctypes.CDLL(None).personality(ADDR_NO_RANDOMIZE)
    with harness.alone_on_this_machine():
        results = soak_it(options.minutes, out, checked, options.seed if options.adversary else None)
    lines = [f"{'ok  ' if holds else 'FAIL'} {what}: {seen}" for what, holds, seen in results]
    failed = sum(not holds for _, holds, _ in results)
    lines.append(f"soak: {options.minutes:g} minutes, {len(results) - failed} checks hold, {failed} fail: "
                 f"{'FAILED' if failed else 'PASSED'}")
    (out / "verdict.txt").write_text("\n".join(lines) + "\n")
    print("\n".join(lines))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.dont_write_bytecode = True
    sys.path.append(str(ROOT / "tests/e2e"))
    chosen = options_of_the_command_line()
    os.environ["CE_BUILD_DIR"] = str(chosen.build)  # where the harness takes its programs from
    import adversary
    import chart
    import harness
    import run
    sys.exit(main(chosen))
