/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only */
/* What the program in the kernel and the agent share, in the C of both: tables, rings and records. */
#pragma once

/* Numbers of system calls: x86-64's, i386's and x32's are below (arch/x86/entry/syscalls of the kernel). */
#define CE_CALLS 1024

/* Kinds of watched calls that a thread's budgets tell apart; a power of two. */
#define CE_KINDS 64

/* The tables of calls by which a program may enter the kernel: x86-64's, i386's through the 32-bit entry, x32's. */
enum CeCallTable { CE_NATIVE, CE_COMPAT, CE_X32, CE_CALL_TABLES };

#define CE_NAME_BYTES 16 /* TASK_COMM_LEN (include/linux/sched.h) */

/* Process ids up to 2^22 (PID_MAX_LIMIT, include/linux/threads.h), so many to an element of the map of processes. */
#define CE_PROCESSES_PER_ELEMENT 2048

/* What a CPU counted since the program was loaded, in events. */
enum CeCount {
    CE_DROPPED,      /* system calls: the ring was full, or the container's part of it */
    CE_DROPPED_LIFE, /* forks, execs, exits and moves: likewise */
    CE_SHED,         /* system calls: excluded because their thread or container makes too many */
    CE_SHED_LIFE,    /* forks, execs and exits: likewise */
    CE_COUNTS
};

/* Events of processes' lives, and their ids in the kernel where they are watched. */
enum CeLifeEvent { CE_FORK, CE_EXEC, CE_EXIT, CE_MOVE, CE_LIFE_EVENTS };

/* How a call is recorded that comes by one of the tables. */
struct CeWatchedCall {
    unsigned short event;        /* id of the trace event it is delivered as; 0: not watched */
    unsigned short number;       /* x86-64's number of the same call */
    unsigned short kind;         /* its place among the watched events, which the budgets count by */
    unsigned short hasFunctions; /* a program at each function that serves it records it */
};

/* Given before the program is loaded. */
struct CeProbeSettings {
    unsigned int processLimit;   /* calls of processes with ids from here on are always recorded */
    unsigned int windowShift;    /* a window of the budgets is 2^windowShift jiffies */
    unsigned int guaranteed;     /* calls of one kind that every thread may make in a window, while there is room */
    unsigned int threadBudget;   /* that it may make while its container has not used up its own budget */
    unsigned int groupBudget;    /* that all threads of a container may make in it on each CPU, not counting the
                                    guaranteed ones; and calls that follow on one of another kind */
    unsigned int lifeBudget;     /* forks and execs of a container, in a window on each CPU */
    unsigned int programBudget;  /* of these execs so many are recorded with a CeProgram; 0: none is */
    unsigned int ringBytes;      /* of each CPU's ring */
    unsigned int mostWaiting;    /* records of a CPU that may wait in the ring before the reader is woken */
    unsigned int hostMounts;     /* number of the host's mount namespace, as in /proc/1/ns/mnt */
    unsigned int hostDevice;     /* of the host's root directory, as the kernel has it */
    unsigned long long hostRoot; /* its inode's number */
    unsigned int hasX32;         /* whether the kernel serves calls by x32's table */
};

/* While threads are listed, the processes of so many control groups can be given identities, and so many be left out.
 */
#define CE_MOST_GIVEN 1024
#define CE_MOST_NOT_GIVEN 32

/* Shared memory while the program runs. */
struct CeProbeTables {
    struct CeWatchedCall watched[CE_CALLS][CE_CALL_TABLES]; /* by number; the agent writes it */
    unsigned short life[CE_LIFE_EVENTS]; /* ids of the trace events that they are delivered as; 0: not watched */
    int ownThread;                       /* the reader, which is never recorded; the agent writes it */
    unsigned int identities;             /* the last one that was given */
    unsigned int changes;                /* the last value given to a process that may be in a container */
    int notGiven[CE_MOST_NOT_GIVEN];     /* processes that get no identity where it is given by control groups */
};

/* A thread, as all of them are listed for the agent. */
struct CeListedThread {
    unsigned long long started; /* nanoseconds, CLOCK_MONOTONIC */
    unsigned long long groups;  /* of its process: the same number for all that are in the same control groups, while
                                   one of them is; 0: it is ending */
    int thread;
    int process;
    int parent;            /* the process that is its process's parent */
    unsigned int identity; /* of its process */
    unsigned int isSetUp;  /* likewise; see CeTask */
    unsigned int unused;
};

/* For each process whether it is known to be the host's: odd. Even values mean that it may be in a container; each
 * change of its control groups gives it a new one, so the agent cannot take out a process that was moved just now. */
struct CeProcesses {
    unsigned short state[CE_PROCESSES_PER_ELEMENT];
};

/* How every record in a ring begins. */
struct CeRecordHead {
    unsigned long long when;     /* nanoseconds, CLOCK_MONOTONIC */
    int process : 31;            /* of the thread that made it */
    unsigned int hasName : 1;    /* a CeSyscallRecord, up to its end */
    unsigned int identity : 30;  /* of that process; see CeMoveEvent */
    unsigned int isInSetUp : 1;  /* likewise; see CeTask */
    unsigned int hasProgram : 1; /* a CeProgram lies behind the event's fields */
};

/* How every event begins, as the kernel's own (struct trace_entry in include/linux/trace_events.h). */
struct CeEventHead {
    unsigned short type;
    unsigned char flags;
    unsigned char preemptCount;
    int thread; /* common_pid */
};

/* As the kernel's own of the events syscalls:sys_enter_* (struct syscall_trace_enter in kernel/trace/trace.h), so that
 * their format files describe it. */
struct CeTraceEntry {
    struct CeEventHead head;
    int number; /* __syscall_nr: x86-64's, whichever entry the call came through */
    int parent; /* the process that is its process's parent; the kernel's own has nothing here */
    unsigned long long arguments[6];
};

struct CeSyscallRecord {
    struct CeRecordHead head;
    struct CeTraceEntry entry;
    char name[CE_NAME_BYTES]; /* the thread's command name; only in the first calls of a kind in a window */
};

/* The events of processes' lives have the fields that the kernel's own of the same names have on every kernel, and some
 * that those lack; LifeFormats describes them. A text field holds where its text lies, as a __data_loc does: the offset
 * from the event's beginning, and the length with its zero byte in the upper half. */
struct CeForkEvent {
    struct CeEventHead head;
    char parentName[CE_NAME_BYTES];
    int parent;
    char childName[CE_NAME_BYTES];
    int child;
};

struct CeExitEvent {
    struct CeEventHead head;
    char name[CE_NAME_BYTES];
    int thread;
    int priority;
};

/* A path is cut off after so many bytes, its zero byte included; nearly all fit into the short form. */
#define CE_SHORT_PATH 128
#define CE_LONG_PATH 3840

/* What a program sees of the host when it is executed. */
enum CePlace {
    CE_PLACE_KNOWN = 1,
    CE_OTHER_MOUNTS = 2, /* a mount namespace that is not the host's */
    CE_OTHER_ROOT = 4    /* a root directory that is not the host's */
};

struct CeExecEvent {
    struct CeEventHead head;
    unsigned int filename;
    int thread;
    int oldThread;
    unsigned int place; /* of CePlace */
};

#define CE_ARGUMENT_BYTES 1024
#define CE_PATH_BYTES 384 /* of all of a path's names */
#define CE_NAME_ROOM 128  /* of one of them, its zero byte included */

/* A path as the process sees it, from its end: each name and a zero byte, the last one first. */
struct CePath {
    unsigned int bytes; /* 0: longer than there is room for */
    char names[CE_PATH_BYTES];
};

/* A process at the moment at which it has executed a program. */
struct CeProgram {
    unsigned long long started;      /* nanoseconds, CLOCK_MONOTONIC */
    unsigned long long capabilities; /* effective ones */
    int parent;                      /* the process that is its parent */
    unsigned int uid;
    unsigned int gid;
    unsigned int loginUid; /* audit's */
    unsigned int argumentBytes;
    char arguments[CE_ARGUMENT_BYTES]; /* each with its zero byte, cut off where there are more */
    struct CePath executable;
    struct CePath workingDirectory;
};

/* The longest file name by which a program re-executes itself, "/proc/thread-self/fd/N", and its zero byte. */
#define CE_SET_UP_NAME 32

/* A process that came into other control groups: it was moved, or was made in another one of version 2 than its
 * parent's, which has no path here. With what became of it before, when nothing of it was recorded.
 *
 * Such a move by a process of the host gives it an identity, a number that was never given before. All that it forks
 * inherits the number, and nothing that it does changes it: whatever control groups it goes to, and whatever the agent
 * fails to read, its records tell where it came from. */
struct CeMoveEvent {
    struct CeEventHead head;       /* the mover's thread; the parent's */
    unsigned long long group;      /* id of the control group */
    int thread;                    /* that was moved: of a whole process the leader */
    int parent;                    /* the process that is its parent */
    unsigned int path;             /* within its hierarchy; without length where there is none */
    int hierarchy;                 /* number of the group's; 0: version 2 */
    unsigned int owner;            /* user id of the group's owner */
    unsigned int identity;         /* from now on; 0: the mover is no process of the host, so it stays as it was */
    unsigned int identityBefore;   /* until then */
    unsigned int bornInSetUp;      /* whether its parent had, when it made it, what `executed` tells */
    char executed[CE_SET_UP_NAME]; /* the file name of its last exec, its parent's included, if that begins like one by
                                      which a program re-executes itself; otherwise empty */
};

/* What is kept with a thread while it lives. */
struct CeTask {
    char executed[CE_SET_UP_NAME]; /* as CeMoveEvent has it */
    unsigned int bornInSetUp;
    unsigned int identity; /* of its process when it was made; its leader's is the one that counts */
    /* A process of the host put it, or its parent, into a container's control groups, and what it has executed since
     * may be the runtime still: itself, in the host's mount namespace. */
    unsigned int isSetUp;
    unsigned int
        isTold; /* the agent knows the thread: its fork, its exec or a call was recorded, so its exit must be, too */
    unsigned int lastKind;     /* of a watched call */
    unsigned long long window; /* in which `used` was counted */
    unsigned short used[CE_KINDS];
};

struct CeForkRecord {
    struct CeRecordHead head;
    struct CeForkEvent entry;
};
struct CeExitRecord {
    struct CeRecordHead head;
    struct CeExitEvent entry;
};
struct CeExecRecord {
    struct CeRecordHead head;
    struct CeExecEvent entry;
    char text[CE_SHORT_PATH]; /* or CE_LONG_PATH */
};
struct CeProgramRecord {
    struct CeRecordHead head;
    struct CeExecEvent entry;
    struct CeProgram program;
    char text[CE_SHORT_PATH]; /* or CE_LONG_PATH */
};
struct CeMoveRecord {
    struct CeRecordHead head;
    struct CeMoveEvent entry;
    char text[CE_SHORT_PATH]; /* or CE_LONG_PATH */
};
