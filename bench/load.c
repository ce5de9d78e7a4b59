// SPDX-License-Identifier: Apache-2.0
// Load for the measurements of the agent as a whole (host_load.py, file_load.py, losses.py).
//
//   load call NAME COUNT TIMES       makes the system call COUNT times; prints what one took, in ns, TIMES times over
//   load storm SECONDS NAME...       makes the calls in turn, as fast as it can; prints how many
//   load forks SECONDS               forks children that end at once; prints how many
//   load exec COUNT PROGRAM          runs the program so many times, one after the other
//   load file HOW PATH COUNT TIMES   does it to the file COUNT times; prints what one took, in ns, TIMES times over.
//   HOW:
//                                    write (one byte), reopen (and write), save (create, write, rename, delete)
//   load spin SECONDS                keeps one CPU busy
//
// Arguments of the calls are -1 or 0 throughout: the kernel refuses them.
#include <errno.h>
#include <fcntl.h>
#include <seccomp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static void Fail(const char* why)
{
    fprintf(stderr, "load: %s: %s\n", why, strerror(errno));
    exit(1);
}

static long long Now(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

static int NumberOf(const char* name)
{
    const int number = seccomp_syscall_resolve_name(name);
    if (number < 0) {
        errno = ENOSYS;
        Fail(name);
    }
    return number;
}

static void TimeCalls(int number, long count, long times)
{
    for (; times > 0; --times) {
        const long long begun = Now();
        for (long i = 0; i < count; ++i) {
            syscall(number, -1L, 0L, 0L, 0L, 0L);
        }
        printf("%.1f\n", (double)(Now() - begun) / (double)count);
    }
}

static void Storm(long long end, char** names, int count)
{
    enum { most = 64 };
    int numbers[most];
    count = count > most ? most : count;
    for (int i = 0; i < count; ++i) {
        numbers[i] = NumberOf(names[i]);
    }
    long made = 0;
    while (Now() < end) {
        for (int i = 0; i < 8 * count; ++i, ++made) {
            syscall(numbers[i % count], -1L, 0L, 0L, 0L, 0L);
        }
    }
    printf("%ld\n", made);
}

// A child that ends at once, or that executes the program.
static void RunChild(const char* program)
{
    const pid_t child = vfork();
    if (child == 0) {
        if (program != NULL) {
            execl(program, program, (char*)NULL);
            _exit(127);
        }
        _exit(0);
    }
    int status;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0) {
        Fail("child");
    }
}

static void Fork(long long end)
{
    long made = 0;
    for (; Now() < end; ++made) {
        RunChild(NULL);
    }
    printf("%ld\n", made);
}

static void WriteByte(int file)
{
    if (file < 0 || pwrite(file, "x", 1, 0) != 1) {
        Fail("file");
    }
}

static void Reopen(const char* path, int flags)
{
    const int file = open(path, O_WRONLY | O_CLOEXEC | flags, 0600);
    WriteByte(file);
    close(file);
}

static void TimeFile(const char* how, const char* path, long count, long times)
{
    char fresh[4096];
    snprintf(fresh, sizeof fresh, "%s~", path);
    const int file = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    for (; times > 0; --times) {
        const long long begun = Now();
        for (long i = 0; i < count; ++i) {
            if (how[0] == 'w') {
                WriteByte(file);
            } else if (how[0] == 'r') {
                Reopen(path, 0);
            } else {
                Reopen(fresh, O_CREAT);
                rename(fresh, path);
                unlink(path);
            }
        }
        printf("%.1f\n", (double)(Now() - begun) / (double)count);
    }
    close(file);
}

int main(int count, char** arguments)
{
    const char* what = count >= 3 ? arguments[1] : "";
    const long long end = count >= 3 ? Now() + (long long)(atof(arguments[2]) * 1e9) : 0;
    if (strcmp(what, "call") == 0 && count == 5) {
        TimeCalls(NumberOf(arguments[2]), atol(arguments[3]), atol(arguments[4]));
    } else if (strcmp(what, "file") == 0 && count == 6) {
        TimeFile(arguments[2], arguments[3], atol(arguments[4]), atol(arguments[5]));
    } else if (strcmp(what, "storm") == 0 && count > 3) {
        Storm(end, arguments + 3, count - 3);
    } else if (strcmp(what, "forks") == 0 && count == 3) {
        Fork(end);
    } else if (strcmp(what, "exec") == 0 && count == 4) {
        for (long left = atol(arguments[2]); left > 0; --left) {
            RunChild(arguments[3]);
        }
    } else if (strcmp(what, "spin") == 0 && count == 3) {
        while (Now() < end) {
        }
    } else {
        fprintf(stderr,
                "usage: load call NAME COUNT TIMES | file HOW PATH COUNT TIMES | storm SECONDS NAME... | forks SECONDS "
                "| exec COUNT PROGRAM | "
                "spin SECONDS\n");
        return 2;
    }
    return 0;
}
