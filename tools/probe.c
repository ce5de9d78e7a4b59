// SPDX-License-Identifier: Apache-2.0
// The attacker of the end-to-end tests: makes the calls that the detectors look for, from the kind of process asked
// for, and does no harm (every call is made with arguments that the kernel refuses, or that change nothing). Linked
// statically, so that it runs in an image that holds nothing else.
//
//   probe HOW WHAT [ARG]    one deed; then "made NS PID" on the standard output: when it began, by CLOCK_MONOTONIC
//   probe serve [HOW WHAT [ARG]]
//                           the same, a line "HOW WHAT [ARG]" of the standard input at a time; "done" after each
//   probe spawn N [DEED..]  forks N children that wait for orders: to each, the first real-time signal means the first
//                           DEED ("HOW WHAT [ARG]" in one word), the second the second; ends with the standard input
//
// HOW:  self, fork, vfork, daemon (double fork and setsid), thread, namespaces (a child in new namespaces),
//       runtime (a child that looks like a container runtime which executes a copy of itself), exec (a server only: it
//       executes this program anew, and serves on)
// WHAT: call NAME[,NAME...], call32 NAME[,NAME...] (through the 32-bit entry), callx32 NAME[,NAME...] (by x32's
//       table), shocker PATH, list PATH, brute N, crowd THREADS N (each thread as brute, 3 ms and more from call to
//       call), volley N NAME[,NAME...] (20 threads as brute at once, then the calls), decoys N NAME[,NAME...] (N
//       children, one after the other), dirtycow, write PATH, read PATH, flood DIRECTORY, storm N NAME[,NAME...], enter
//       PID, and those of Rearrange
#define _GNU_SOURCE
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

struct Deed {
    const char* what;
    const char* first;
    const char* second;
};

static void Fail(const char* why)
{
    fprintf(stderr, "probe: %s: %s\n", why, strerror(errno));
    exit(1);
}

static struct timespec Now(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

// After the deed: nothing, not even a write, comes between a process's start and its deed.
static void Say(struct timespec when)
{
    char line[80];
    const int size = snprintf(line, sizeof line, "made %lld %ld\n", when.tv_sec * 1000000000LL + when.tv_nsec,
                              (long)syscall(SYS_gettid));
    if (write(STDOUT_FILENO, line, (size_t)size) != size) {
        _exit(3);
    }
}

struct Call {
    const char* name;
    long number;
};
static const struct Call calls[] = {
    {"unshare", SYS_unshare},
    {"setns", SYS_setns},
    {"mount", SYS_mount},
    {"umount2", SYS_umount2},
    {"ptrace", SYS_ptrace},
    {"open_by_handle_at", SYS_open_by_handle_at},
    {"pivot_root", SYS_pivot_root},
    {"chroot", SYS_chroot},
    {"bpf", SYS_bpf},
    {"getppid", SYS_getppid},
    {"keyctl", SYS_keyctl},
    {"init_module", SYS_init_module},
    {"process_vm_readv", SYS_process_vm_readv},
    {"process_vm_writev", SYS_process_vm_writev},
    {"finit_module", SYS_finit_module},
    {"delete_module", SYS_delete_module},
    {"kexec_load", SYS_kexec_load},
    {"kexec_file_load", SYS_kexec_file_load},
    {"userfaultfd", SYS_userfaultfd},
    {"getdents64", SYS_getdents64},
    {"capset", SYS_capset},
    {"mknodat", SYS_mknodat},
    {"prctl", SYS_prctl},
    {"pause", SYS_pause},
};

static long NumberOf(const struct Call* table, size_t size, const char* name)
{
    for (size_t i = 0; i < size; ++i) {
        if (strcmp(table[i].name, name) == 0) {
            return table[i].number;
        }
    }
    return -1;
}

static long KnownNumberOf(const char* name)
{
    const long number = NumberOf(calls, sizeof calls / sizeof calls[0], name);
    if (number < 0) {
        errno = EINVAL;
        Fail(name);
    }
    return number;
}

// Arguments of -1 or 0 throughout: unshare(0) changes nothing, the others are refused.
static long CallByNumber(long number)
{
    return syscall(number, number == SYS_unshare ? 0L : -1L, 0, 0, 0, 0);
}

static void MakeCall(const char* name)
{
    CallByNumber(KnownNumberOf(name));
}

// x86-64's number, or one of x32's own, with a bit on top (arch/x86/entry/syscalls/syscall_64.tbl).
static void MakeCallX32(const char* name)
{
    static const struct Call own[] = {
        {"ptrace", 521}, {"kexec_load", 528}, {"process_vm_readv", 539}, {"process_vm_writev", 540}};
    const long number = NumberOf(own, sizeof own / sizeof own[0], name);
    const long x32Bit = 0x40000000;
    if (CallByNumber((number < 0 ? KnownNumberOf(name) : number) | x32Bit) < 0 && errno == ENOSYS) {
        Fail("x32");
    }
}

// i386's numbers (arch/x86/entry/syscalls/syscall_32.tbl): this program is a 64-bit one.
static const struct {
    const char* name;
    int number;
} calls32[] = {
    {"unshare", 310}, {"setns", 346}, {"mount", 21},    {"ptrace", 26},       {"open_by_handle_at", 342},
    {"readdir", 89},  {"umount", 22}, {"umount2", 52},  {"chroot", 61},       {"pivot_root", 217},
    {"keyctl", 288},  {"bpf", 357},   {"capset", 185},  {"prctl", 172},       {"process_vm_readv", 347},
    {"getppid", 64},  {"pause", 29},  {"mknodat", 297}, {"init_module", 128}, {"getdents64", 220},
};

static void MakeCall32(const char* name)
{
    for (size_t i = 0; i < sizeof calls32 / sizeof calls32[0]; ++i) {
        if (strcmp(calls32[i].name, name) == 0) {
            long result = calls32[i].number;
            const long argument = strcmp(name, "unshare") == 0 ? 0 : -1;
            __asm__ volatile("int $0x80"
                             : "+a"(result)
                             : "b"(argument), "c"(0L), "d"(0L), "S"(0L), "D"(0L)
                             : "memory", "r8", "r9", "r10", "r11");
            if (result == -ENOSYS) {
                errno = ENOSYS;
                Fail("int 0x80");
            }
            return;
        }
    }
    errno = EINVAL;
    Fail(name);
}

static void MakeCalls(const char* names, void (*make)(const char* name))
{
    char copy[256];
    char* rest = copy;
    snprintf(copy, sizeof copy, "%s", names);
    for (const char* name; (name = strtok_r(rest, ",", &rest)) != NULL;) {
        make(name);
    }
}

static void List(const char* path)
{
    char buffer[4096];
    const int dir = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0) {
        Fail(path);
    }
    syscall(SYS_getdents64, dir, buffer, sizeof buffer);
    close(dir);
}

// Lists twice, then opens the path by a real handle.
static void Shocker(const char* path)
{
    union {
        struct file_handle handle;
        char space[sizeof(struct file_handle) + MAX_HANDLE_SZ];
    } target;
    int mountId;
    target.handle.handle_bytes = MAX_HANDLE_SZ;
    if (name_to_handle_at(AT_FDCWD, path, &target.handle, &mountId, 0) != 0) {
        Fail("name_to_handle_at");
    }
    const int mount = open(path, O_RDONLY | O_CLOEXEC);
    List("/");
    List("/");
    const struct timespec when = Now();
    const int opened = open_by_handle_at(mount, &target.handle, O_RDONLY | O_CLOEXEC);
    if (opened < 0 && errno == EPERM) {
        Fail("open_by_handle_at");
    }
    Say(when);
    close(opened);
    close(mount);
}

static void DirtyCowSequence(void)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    syscall(SYS_bind, fd, NULL, 0);
    void* page = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    syscall(SYS_madvise, page, 4096, MADV_DONTNEED);
    syscall(SYS_ptrace, -1, 0, 0, 0);
    syscall(SYS_accept, fd, NULL, NULL);
    close(fd);
}

static void Write(const char* path)
{
    const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, "x\n", 2) != 2) {
        Fail(path);
    }
    close(fd);
}

// One file after the other in that directory, for ever: the kernel merges what is told of one.
static void Flood(const char* path)
{
    char file[4096];
    for (unsigned int number = 0;; ++number) {
        snprintf(file, sizeof file, "%s/%d.%u", path, getpid(), number % 500);
        const int fd = open(file, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0 || write(fd, "x", 1) != 1) {
            Fail(file);
        }
        close(fd);
    }
}

static void Read(const char* path)
{
    char buffer[16];
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0 || read(fd, buffer, sizeof buffer) < 0) {
        Fail(path);
    }
    close(fd);
}

// What changes a directory without a write to a file of it.
static void Rearrange(const char* how, const char* from, const char* to)
{
    int result = -1;
    char path[4096];
    if (strcmp(how, "rename") == 0) {
        result = rename(from, to);
    } else if (strcmp(how, "exchange") == 0) {
        result = renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_EXCHANGE);
    } else if (strcmp(how, "link") == 0) {
        result = link(from, to);
    } else if (strcmp(how, "unnamed") == 0) {  // a file without a name in the directory `from` gets one
        snprintf(path, sizeof path, "/proc/self/fd/%d", open(from, O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
        result = linkat(AT_FDCWD, path, AT_FDCWD, to, AT_SYMLINK_FOLLOW);
    } else if (strcmp(how, "unlink") == 0) {
        result = unlink(from);
    } else if (strcmp(how, "chmod") == 0) {
        result = chmod(from, 0600);
    } else if (strcmp(how, "away") == 0) {
        result = rename(from, to) | rename(to, from);
    } else if (strcmp(how, "through") == 0) {  // the file is written by another name that is gone after
        result = link(from, to);
        Write(to);
        result |= unlink(to);
    } else {
        errno = EINVAL;
    }
    if (result != 0) {
        Fail(how);
    }
}

static void Enter(const char* pid)
{
    char path[64];
    snprintf(path, sizeof path, "/proc/%s/ns/uts", pid);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0 || setns(fd, CLONE_NEWUTS) != 0) {
        Fail(path);
    }
    close(fd);
}

static void* Guess(void* calls)
{
    for (long i = atol(calls); i > 0; --i) {
        syscall(SYS_open_by_handle_at, -1, 0, 0);
    }
    return NULL;
}

static void* GuessSlowly(void* calls)
{
    for (long i = atol(calls); i > 0; --i) {
        Guess("1");
        usleep(3000);
    }
    return NULL;
}

static void Crowd(long count, void* (*guess)(void* calls), const char* calls)
{
    pthread_t threads[64];
    if (count < 0 || count > 64) {
        errno = EINVAL;
        Fail("crowd");
    }
    for (long i = 0; i < count; ++i) {
        if (pthread_create(&threads[i], NULL, guess, (void*)calls) != 0) {
            Fail("pthread_create");
        }
    }
    while (count > 0) {
        pthread_join(threads[--count], NULL);
    }
}

static void AwaitChild(pid_t child)
{
    int status;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0) {
        Fail("child");
    }
}

static void Decoys(long count, const char* calls)
{
    while (--count >= 0) {
        const pid_t child = fork();
        if (child == 0) {
            MakeCalls(calls, MakeCall);
            _exit(0);
        }
        AwaitChild(child);
    }
}

static void Do(const struct Deed* deed)
{
    const char* what = deed->what;
    const char* first = deed->first == NULL ? "" : deed->first;
    if (strcmp(what, "shocker") == 0) {
        Shocker(first);
        return;
    }
    const struct timespec when = Now();
    if (strcmp(what, "call") == 0) {
        MakeCalls(first, MakeCall);
    } else if (strcmp(what, "call32") == 0) {
        MakeCalls(first, MakeCall32);
    } else if (strcmp(what, "callx32") == 0) {
        MakeCalls(first, MakeCallX32);
    } else if (strcmp(what, "list") == 0) {
        List(first);
    } else if (strcmp(what, "brute") == 0) {
        Guess((void*)first);
    } else if (strcmp(what, "crowd") == 0) {
        Crowd(atol(first), GuessSlowly, deed->second);
    } else if (strcmp(what, "volley") == 0) {
        Crowd(20, Guess, first);
        MakeCalls(deed->second, MakeCall);
    } else if (strcmp(what, "decoys") == 0) {
        Decoys(atol(first), deed->second);
    } else if (strcmp(what, "dirtycow") == 0) {
        DirtyCowSequence();
    } else if (strcmp(what, "write") == 0) {
        Write(first);
    } else if (strcmp(what, "flood") == 0) {
        Flood(first);
    } else if (strcmp(what, "read") == 0) {
        Read(first);
    } else if (strcmp(what, "unshareuts") == 0) {
        if (unshare(CLONE_NEWUTS) != 0) {
            Fail("unshare");
        }
    } else if (strcmp(what, "enter") == 0) {
        Enter(first);
    } else if (strcmp(what, "storm") == 0) {
        for (long i = atol(first); i > 0; --i) {
            MakeCalls(deed->second, MakeCall);
        }
    } else {
        Rearrange(what, first, deed->second);
    }
    Say(when);
}

static void* DoInThread(void* deed)
{
    Do(deed);
    return NULL;
}

static void DoInChild(const struct Deed* deed, unsigned long flags)
{
    const pid_t child = (pid_t)syscall(SYS_clone, flags | SIGCHLD, 0, 0, 0, 0);
    if (child == 0) {
        Do(deed);
        _exit(0);
    }
    AwaitChild(child);
}

// As container runtimes do: a sealed copy of the own program in memory, executed under a name of theirs.
static void BecomeRuntime(char* const arguments[])
{
    const int copy = memfd_create("runc_cloned:/proc/self/exe", MFD_ALLOW_SEALING);
    const int own = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    while (copy >= 0 && sendfile(copy, own, NULL, 1 << 30) > 0) {
    }
    prctl(PR_SET_NAME, "runc:[2:INIT]");
    fexecve(copy, arguments, environ);
    Fail("fexecve");
}

// The grandchild's end is awaited through a pipe that only it holds.
static void DoAsDaemon(const struct Deed* deed)
{
    int ends[2];
    char nothing;
    if (pipe2(ends, O_CLOEXEC) != 0) {
        Fail("pipe2");
    }
    const pid_t child = fork();
    if (child == 0) {
        setsid();
        if (fork() == 0) {
            Do(deed);
        }
        _exit(0);
    }
    close(ends[1]);
    AwaitChild(child);
    while (read(ends[0], &nothing, 1) > 0) {
    }
    close(ends[0]);
}

static void DoAs(const char* how, const struct Deed* deed)
{
    if (strcmp(how, "self") == 0) {
        Do(deed);
    } else if (strcmp(how, "fork") == 0) {
        DoInChild(deed, 0);
    } else if (strcmp(how, "namespaces") == 0) {
        DoInChild(deed, CLONE_NEWUTS | CLONE_NEWNET);
    } else if (strcmp(how, "vfork") == 0) {
        // A child of vfork may only exec: it becomes this program again, by its open image.
        char* const arguments[] = {"probe", "self", (char*)deed->what, (char*)deed->first, (char*)deed->second, NULL};
        const pid_t child = vfork();
        if (child == 0) {
            execv("/proc/self/exe", arguments);
            _exit(1);
        }
        AwaitChild(child);
    } else if (strcmp(how, "runtime") == 0) {
        char* const arguments[] = {"runc", "self", (char*)deed->what, (char*)deed->first, (char*)deed->second, NULL};
        const pid_t child = fork();
        if (child == 0) {
            BecomeRuntime(arguments);
        }
        AwaitChild(child);
    } else if (strcmp(how, "exec") == 0) {
        execv("/proc/self/exe",
              (char*[]){"probe", "serve", "self", (char*)deed->what, (char*)deed->first, (char*)deed->second, NULL});
        Fail("execv");
    } else if (strcmp(how, "daemon") == 0) {
        DoAsDaemon(deed);
    } else if (strcmp(how, "thread") == 0) {
        pthread_t thread;
        if (pthread_create(&thread, NULL, DoInThread, (void*)deed) != 0) {
            Fail("pthread_create");
        }
        pthread_join(thread, NULL);
    } else {
        errno = EINVAL;
        Fail(how);
    }
}

// Takes the line apart in place.
static void Obey(char* line)
{
    char* rest = line;
    char* words[4] = {NULL, NULL, NULL, NULL};
    for (int i = 0; i < 4; ++i) {
        words[i] = strtok_r(rest, " \n", &rest);
    }
    if (words[1] != NULL) {
        DoAs(words[0], &(struct Deed){words[1], words[2], words[3]});
    }
}

static void Done(void)
{
    printf("done\n");
    fflush(stdout);
}

static void Serve(void)
{
    char line[4096];
    while (fgets(line, sizeof line, stdin) != NULL) {
        Obey(line);
        Done();
    }
}

static void AwaitSignals(const sigset_t* orders, char** deeds, int count)
{
    char line[4096];
    for (;;) {
        const int deed = sigwaitinfo(orders, NULL) - SIGRTMIN;
        if (deed >= 0 && deed < count) {
            snprintf(line, sizeof line, "%s", deeds[deed]);
            Obey(line);
        }
    }
}

static void Spawn(long children, char** deeds, int count)
{
    char nothing;
    sigset_t orders;
    sigemptyset(&orders);
    for (int number = SIGRTMIN; number <= SIGRTMAX; ++number) {
        sigaddset(&orders, number);
    }
    sigprocmask(SIG_BLOCK, &orders, NULL);
    for (long i = 0; i < children; ++i) {
        if (fork() == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            AwaitSignals(&orders, deeds, count);
        }
    }
    while (read(STDIN_FILENO, &nothing, 1) > 0) {
    }
}

// One process after the other makes `calls` calls of that name, for ever.
static void Spread(long calls, const char* name)
{
    for (;;) {
        const pid_t child = fork();
        if (child == 0) {
            for (long i = calls; i > 0; --i) {
                MakeCall(name);
            }
            _exit(0);
        }
        AwaitChild(child);
    }
}

// "HOW WHAT [ARG [ARG]]", ends with a null pointer.
static void DoWords(char** words)
{
    DoAs(words[0], &(struct Deed){words[1], words[2], words[2] == NULL ? NULL : words[3]});
}

int main(int count, char** arguments)
{
    if (count >= 2 && strcmp(arguments[1], "serve") == 0) {
        if (count >= 4) {
            DoWords(arguments + 2);
            Done();
        }
        Serve();
    } else if (count == 4 && strcmp(arguments[1], "spread") == 0) {
        Spread(atol(arguments[2]), arguments[3]);
    } else if (count >= 3 && strcmp(arguments[1], "spawn") == 0) {
        Spawn(atol(arguments[2]), arguments + 3, count - 3);
    } else if (count >= 3) {
        DoWords(arguments + 1);
    } else {
        fprintf(stderr, "usage: probe HOW WHAT [ARG] | serve [HOW WHAT [ARG]] | spawn N [DEED..] | spread N CALL\n");
        return 2;
    }
    return 0;
}
