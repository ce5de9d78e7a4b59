/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only */
/* What the program in the kernel and the agent share, in the C of both: tables, rings and records of system calls. */
#pragma once

/* Numbers of system calls: both x86-64's and i386's are below (arch/x86/entry/syscalls of the kernel). */
#define CE_CALLS 512

/* Process ids up to 2^22 (PID_MAX_LIMIT, include/linux/threads.h), so many to an element of the map of processes. */
#define CE_PROCESSES_PER_ELEMENT 2048

/* What a CPU counted since the program was loaded, in events. */
enum CeCount {
    CE_DROPPED, /* the ring was full */
    CE_SHED,    /* excluded: their thread or container makes too many */
    CE_COUNTS
};

/* How a call is recorded that comes through one of the two entries. */
struct CeWatchedCall {
    unsigned short event;  /* id of the trace event it is delivered as; 0: not watched */
    unsigned short number; /* x86-64's number of the same call */
};

/* Given before the program is loaded. */
struct CeProbeSettings {
    unsigned int processLimit; /* calls of processes with ids from here on are always recorded */
    unsigned int windowShift;  /* a window of the budgets is 2^windowShift jiffies */
    unsigned int guaranteed;   /* calls of one kind that every thread may make in a window on each CPU, always */
    unsigned int threadBudget; /* that it may make while its control groups have not used up theirs */
    unsigned int
        groupBudget; /* that all threads in the same control groups may make, the guaranteed ones not counted */
};

/* Shared memory while the program runs. */
struct CeProbeTables {
    struct CeWatchedCall watched[CE_CALLS][2]; /* by number and entry (0: 64-bit, 1: 32-bit); the agent writes it */
    int ownThread;                             /* the reader, which is never recorded; the agent writes it */
    unsigned int changes;                      /* the last value given to a process that may be in a container */
};

/* For each process whether it is known to be the host's: odd. Even values mean that it may be in a container; each
 * change of its control groups gives it a new one, so the agent cannot take out a process that was moved just now. */
struct CeProcesses {
    unsigned short state[CE_PROCESSES_PER_ELEMENT];
};

/* A record as the kernel's own of the events syscalls:sys_enter_* (struct syscall_trace_enter in kernel/trace/trace.h,
 * which begins with struct trace_entry), so that their format files describe it. */
struct CeTraceEntry {
    unsigned short type;
    unsigned char flags;
    unsigned char preemptCount;
    int thread;  /* common_pid */
    int number;  /* __syscall_nr: x86-64's, whichever entry the call came through */
    int process; /* padding in the kernel's own records */
    unsigned long long arguments[6];
};

struct CeSyscallRecord {
    unsigned long long when; /* nanoseconds, CLOCK_MONOTONIC */
    struct CeTraceEntry entry;
};
