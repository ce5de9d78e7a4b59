# SPDX-License-Identifier: Apache-2.0
"""What the runtime, the engine and the host do is never taken for a container's deed, and hides none."""

import concurrent.futures
import os
import pathlib
import signal
import subprocess
import tempfile
import time

import harness
from harness import BRUTE, FILES, HIGH_RISK, HOST_FILE, MERGE_SECONDS, SHOCKER, named

# What runc 1.1.5, its shim and the engine's helpers call from the first fork for a container to the exec of its program,
# as recorded with raw_syscalls:sys_enter, and their relatives. Left out is what the benign program of these tests, the
# probe, calls itself from its start to its end (brk, mprotect...).
RUNTIME_CALLS = """
    access bind capget capset chdir chroot clone close connect dup2 dup3 epoll_create1 epoll_ctl epoll_pwait execve exit
    fchdir fchmod fchmodat fchown fchownat fcntl fork fstatfs futex getcwd getdents getdents64 getegid geteuid getpid
    getrlimit getsockname getuid ioctl keyctl kill lgetxattr linkat lseek lsetxattr madvise memfd_create mkdir mkdirat
    mknod mknodat mmap mount munmap nanosleep openat personality pipe2 pivot_root prctl pread64 readlinkat recvfrom
    recvmsg renameat rt_sigaction rt_sigprocmask rt_sigreturn sched_getaffinity sched_setaffinity sched_yield sendmsg
    sendto setdomainname setgid setgroups sethostname setns setpgid setpriority setregid setresgid setresuid setreuid
    setsid setsockopt setuid setxattr shutdown sigaltstack socket socketpair statfs symlink symlinkat tgkill umask
    umount2 uname unlink unlinkat unshare vfork waitid
""".split()

# Of these, what no program but a runtime needs.
SET_UP_CALLS = """
    capset chroot keyctl mknodat mount pivot_root setdomainname setgroups sethostname setns symlinkat umount2 unshare
""".split()

DOCKERFILE = """
FROM probe:1
RUN ["/bin/probe", "self", "call", "getppid"]
HEALTHCHECK --interval=1s CMD ["/bin/probe", "self", "call", "getppid"]
CMD ["/bin/probe", "self", "call", "pause"]
"""
GROUPS = f"ce-test-{os.getpid()}"  # control groups that the tests leave behind in each hierarchy
IDLE = ("probe", "self", "call", "pause")
BENIGN = ("probe", "self", "call", "getppid")
HOST_AT_WORK = f"""
    while sleep 0.05; do
        for deed in "fork call unshare" "self call mount" "thread call setns" "runtime call pivot_root"; do
            {harness.PROBE} $deed
        done
    done >/dev/null
"""


class Precision(harness.InDocker):
    engine_options = ("--live-restore",)

    @classmethod
    def setUpClass(cls):
        cls.addClassCleanup(harness.remove_groups, GROUPS)
        super().setUpClass()
        (cls.folder / "target").write_text("by the host\n")

    def start(self, *words, command=IDLE):
        return super().start(*words, command=command)

    def benign(self, *words):
        """Many times, three at a time."""
        with concurrent.futures.ThreadPoolExecutor(3) as pool:
            list(pool.map(lambda _: self.engine.docker(*words, *BENIGN), range(harness.tries(100))))

    def build(self):
        with tempfile.TemporaryDirectory() as folder:
            (pathlib.Path(folder) / "Dockerfile").write_text(DOCKERFILE)
            self.engine.docker("build", "--network", "none", "-t", "built:1", folder)
        healthy = self.engine.docker("run", "-d", "--network", "none", "built:1")
        harness.run("sh", "-c", f"until {harness.DOCKER} ps --filter health=healthy -q | grep -q .; do sleep 0.2; done",
                    env=self.engine.environment)
        self.engine.docker("rm", "-f", healthy)

    def copy(self):
        for there in ("/tmp/copy", "/host/copy"):
            self.engine.docker("cp", harness.PROBE, f"victim:{there}")
            self.engine.docker("cp", f"victim:{there}", self.folder / "back")

    def rule(self):
        for words in ("pause victim", "unpause victim", "top victim", "commit victim committed:1",
                      f"export -o {self.folder}/exported victim", "kill " + self.start("--name", "killed")):
            self.engine.docker(*words.split())

    def test_only_attacks_alarm_whatever_the_engine_does(self):
        mount = ("-v", f"{self.folder}:/host")
        victim = self.start("--name", "victim", "--cap-add", "SYS_ADMIN", "--cap-add", "DAC_READ_SEARCH", *mount)
        phases = (
            (lambda: self.benign("run", "--rm", "--network", "none", *mount, "-w", "/host", "probe:1"), "unshare"),
            (lambda: self.benign("exec", "victim"), "setns"),
            (self.engine.restart, "mount"),
            (lambda: self.engine.make_image("other:1"), "pivot_root"),
            (lambda: self.engine.docker("restart", "-t", "0", "victim"), "umount2"),
            (self.build, "keyctl"),
            (self.copy, "chroot"),
            (self.rule, "capset"),
        )
        agent = self.agent(calls=RUNTIME_CALLS, directories=[f"{self.engine.dir}/data/containers*/*rwa",
                                                             f"{self.folder}*/*rwa"])
        host = subprocess.Popen(["sh", "-c", HOST_AT_WORK])
        self.addCleanup(host.wait)
        self.addCleanup(host.kill)
        expected, latencies = [], []
        for phase, call in phases:
            phase()
            made, _ = self.attack("self", "call", call)
            arrived, alarm = agent.alarm()
            self.assertEqual(alarm.get("forensic_info"), {"sys_call": call}, alarm)
            expected.append((HIGH_RISK, victim))
            latencies.append((arrived - made) / 1e6)
            time.sleep(MERGE_SECONDS)
        # The other detectors were on as well.
        for name, deed in {FILES: "write /host/target", BRUTE: "brute 301", SHOCKER: f"shocker {HOST_FILE}"}.items():
            self.attack("self", *deed.split())
            agent.alarm(named(name))
        counts = agent.stop()
        print(f"\n  {harness.tries(100)} runs and execs: {len(agent.alarms())} alarms, of attacks all; call to alarm "
              f"{min(latencies):.1f} to {max(latencies):.1f} ms; {counts}")
        self.assertEqual([(alarm["event_name"], alarm["resource_info"]["container_id"])
                          for alarm in agent.alarms()[:len(phases)]], expected)
        self.assertEqual({alarm["resource_info"]["container_id"] for alarm in agent.alarms()}, {victim})
        self.assertEqual(counts["shed_kernel"] + counts["shed"] + counts["lost_kernel"] + counts["lost_queues"], 0)

    def watching(self):
        return self.agent(calls=SET_UP_CALLS)

    def assert_only(self, agent, call, container):
        agent.alarm()
        agent.stop()
        self.assertEqual([(alarm.get("forensic_info"), alarm["resource_info"]["container_id"])
                          for alarm in agent.alarms()], [({"sys_call": call}, container)])

    def test_whatever_a_container_shares_with_the_host(self):
        for options in ("--init", "--pid host", "--ipc host", "--uts host", "--cgroupns host", "--cgroupns private",
                        f"--cgroup-parent /{GROUPS}/nested", "--user 1000:1000", "--read-only --tty",
                        "--pid host --ipc host --uts host --cgroupns host --cap-add SYS_ADMIN --cap-add SYS_PTRACE"):
            with self.subTest(options=options):
                with self.watching() as agent:
                    first = self.start(*options.split(), command=("probe", "self", "call", "unshare"))
                    self.assert_only(agent, "unshare", first)
                with self.watching() as agent:
                    running = self.start(*options.split())
                    self.attack("thread", "call", "setns", container=running)
                    self.assert_only(agent, "setns", running)

    def test_a_process_that_pretends_to_be_the_runtime_is_seen(self):
        pretender = self.start("--cap-add", "SYS_ADMIN", "--cgroupns", "host", "-v", "/sys/fs/cgroup:/groups")
        leave = "for group in /groups/*; do %s; done 2>/dev/null; exec probe fork call mount"
        for deed in (("probe", "runtime", "call", "mount"),
                     ("sh", "-c", leave % f"busybox mkdir $group/{GROUPS}; echo 0 >$group/{GROUPS}/cgroup.procs"),
                     ("sh", "-c", leave % "echo 0 >$group/cgroup.procs")):
            with self.subTest(deed=deed), self.watching() as agent:
                self.engine.docker("exec", pretender, *deed)
                self.assert_only(agent, "mount", pretender)

    def test_a_process_that_is_gone_before_the_agent_looks_is_seen(self):
        for name in ("/bin/probe", "/memfd:runc_cloned"):
            with self.subTest(first=name), self.watching() as agent:
                os.kill(agent.pid, signal.SIGSTOP)
                try:
                    container = self.start("--mount", f"type=bind,src={harness.PROBE},dst={name}",
                                           command=(name, "self", "call", "umount2"))
                    self.engine.docker("wait", container)
                finally:
                    os.kill(agent.pid, signal.SIGCONT)
                self.assert_only(agent, "umount2", container)
