/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only */
/* System calls of processes that may be in a container, and of no others, into a ring for each CPU.
 *
 * Which process may be in one is decided here, at the moment at which it changes, so that no call is missed: a process
 * is in the control groups of its parent, until it is moved, or is made in others at once (clone3(2) with
 * CLONE_INTO_CGROUP). The agent looks at what is left and takes out the processes of the host. */
#include "host/ftrace/SyscallProbeLayout.h"

#include <linux/bpf.h>
#include <linux/types.h>

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

/* The parts of the kernel's types that are read here; their offsets come from the running kernel's BTF. */
#pragma clang attribute push(__attribute__((preserve_access_index)), apply_to = record)
struct thread_info {
    __u32 status;
};
struct kernfs_node {
    __u64 id;
};
struct cgroup {
    struct kernfs_node* kn;
};
struct css_set {
    struct cgroup* dfl_cgrp;
};
struct task_struct {
    struct thread_info thread_info;
    int pid;
    int tgid;
    struct css_set* cgroups;
};
struct pt_regs {
    unsigned long bp, bx, r10, r9, r8, cx, dx, si, di;
};
#pragma clang attribute pop

/* Of thread_info.status, while a call through the 32-bit entry is served (arch/x86/include/asm/thread_info.h). */
#define TS_COMPAT 0x0002

const volatile struct CeProbeSettings settings;
struct CeProbeTables tables;

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_MMAPABLE);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct CeProcesses);
} processes SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY_OF_MAPS);
    __uint(max_entries, 1);
    __type(key, __u32);
    __array(
        values, struct {
            __uint(type, BPF_MAP_TYPE_RINGBUF);
            __uint(max_entries, 4096);
        });
} rings SEC(".maps");

/* The control group (of version 2) of a process that was made in another one than its parent's, by its id. */
struct {
    __uint(type, BPF_MAP_TYPE_LRU_HASH);
    __uint(max_entries, 1024);
    __type(key, __u32);
    __type(value, __u64);
} initialCgroups SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, CE_COUNTS);
    __type(key, __u32);
    __type(value, __u64);
} counts SEC(".maps");

/* How many calls of a kind a thread, or all in the same control groups, made in the present window. */
struct BudgetKey {
    __u64 caller;
    __u64 event;
};
struct Budget {
    __u64 window;
    __u64 used;
};
struct {
    __uint(type, BPF_MAP_TYPE_LRU_PERCPU_HASH);
    __uint(max_entries, 4096);
    __type(key, struct BudgetKey);
    __type(value, struct Budget);
} budgets SEC(".maps");

static __always_inline __u16* StateOf(__u32 process)
{
    const __u32 element = process / CE_PROCESSES_PER_ELEMENT;
    struct CeProcesses* found = process < settings.processLimit ? bpf_map_lookup_elem(&processes, &element) : NULL;
    return found == NULL ? NULL : &found->state[process % CE_PROCESSES_PER_ELEMENT];
}

static __always_inline int IsHost(__u32 process)
{
    const __u16* state = StateOf(process);
    return state != NULL && (*state & 1) != 0;
}

static __always_inline void MayBeInContainer(__u32 process)
{
    __u16* state = StateOf(process);
    if (state != NULL) {
        *(volatile __u16*)state = (__u16)(__sync_fetch_and_add(&tables.changes, 2) + 2);
    }
}

static __always_inline void Count(enum CeCount what)
{
    const __u32 key = what;
    __u64* count = bpf_map_lookup_elem(&counts, &key);
    if (count != NULL) {
        __sync_fetch_and_add(count, 1); /* exact also where another call may come in between */
    }
}

/* How many calls were counted in this window before this one. A caller that cannot be remembered is let through: the
 * ring's own bound is left. */
static __always_inline __u64 Used(__u64 caller, __u64 event, __u64 window)
{
    const struct BudgetKey key = {caller, event};
    struct Budget* budget = bpf_map_lookup_elem(&budgets, &key);
    if (budget == NULL) {
        const struct Budget first = {window, 1};
        bpf_map_update_elem(&budgets, &key, &first, BPF_ANY);
        return 0;
    }
    if (budget->window != window) {
        budget->window = window;
        budget->used = 0;
    }
    return budget->used++;
}

/* A container that storms does not hide the few calls of its other threads. */
static __always_inline int IsWithinBudgets(const struct task_struct* task, __u64 event)
{
    const __u64 window = bpf_jiffies64() >> settings.windowShift;
    const __u64 ofThread = Used((__u32)task->pid, event, window);
    return ofThread < settings.guaranteed ||
           (ofThread < settings.threadBudget && Used((__u64)task->cgroups, event, window) < settings.groupBudget);
}

static __always_inline void Fill(struct CeTraceEntry* entry, const struct CeWatchedCall* call,
                                 const struct pt_regs* regs, int compat)
{
    const __u64 ids = bpf_get_current_pid_tgid();
    entry->type = call->event;
    entry->flags = 0;
    entry->preemptCount = 0;
    entry->thread = (int)(__u32)ids;
    entry->number = call->number;
    entry->process = (int)(ids >> 32);
    if (compat) {
        entry->arguments[0] = (__u32)regs->bx;
        entry->arguments[1] = (__u32)regs->cx;
        entry->arguments[2] = (__u32)regs->dx;
        entry->arguments[3] = (__u32)regs->si;
        entry->arguments[4] = (__u32)regs->di;
        entry->arguments[5] = (__u32)regs->bp;
    } else {
        entry->arguments[0] = regs->di;
        entry->arguments[1] = regs->si;
        entry->arguments[2] = regs->dx;
        entry->arguments[3] = regs->r10;
        entry->arguments[4] = regs->r8;
        entry->arguments[5] = regs->r9;
    }
}

SEC("tp_btf/sys_enter")
int BPF_PROG(OnSystemCall, struct pt_regs* regs, long number)
{
    if ((unsigned long)number >= CE_CALLS) {
        return 0;
    }
    /* This much is done for every call on the machine, all that follows only for those that are watched. */
    const struct CeWatchedCall* calls = tables.watched[number & (CE_CALLS - 1)];
    if (calls[0].event == 0 && calls[1].event == 0) {
        return 0;
    }
    const struct task_struct* task = bpf_get_current_task_btf();
    const int compat = (task->thread_info.status & TS_COMPAT) != 0;
    const struct CeWatchedCall call = calls[compat];
    const __u32 process = task->tgid;
    if (call.event == 0 || IsHost(process) || task->pid == tables.ownThread) {
        return 0;
    }
    if (!IsWithinBudgets(task, call.event)) {
        Count(CE_SHED);
        return 0;
    }
    const __u32 cpu = bpf_get_smp_processor_id();
    void* ring = bpf_map_lookup_elem(&rings, &cpu);
    struct CeSyscallRecord* record = ring == NULL ? NULL : bpf_ringbuf_reserve(ring, sizeof *record, 0);
    if (record == NULL) {
        Count(CE_DROPPED);
        return 0;
    }
    /* After the reservation: a reader that took its time before and finds no reservation will see no earlier record. */
    record->when = bpf_ktime_get_ns();
    Fill(&record->entry, &call, regs, compat);
    bpf_ringbuf_submit(record, 0);
    return 0;
}

/* Before the child runs. A thread of the same process changes nothing. */
SEC("tp_btf/sched_process_fork")
int BPF_PROG(OnFork, struct task_struct* parent, struct task_struct* child)
{
    const __u32 process = child->tgid;
    if (process == (__u32)parent->tgid) {
        return 0;
    }
    const int isMadeElsewhere = parent->cgroups != child->cgroups;
    if (isMadeElsewhere) {
        const __u64 group = child->cgroups->dfl_cgrp->kn->id;
        bpf_map_update_elem(&initialCgroups, &process, &group, BPF_ANY);
    } else {
        bpf_map_delete_elem(&initialCgroups, &process); /* of an earlier process with that id */
    }
    if (isMadeElsewhere || !IsHost(parent->tgid)) {
        MayBeInContainer(process);
        return 0;
    }
    __u16* state = StateOf(process);
    if (state != NULL) {
        *(volatile __u16*)state = 1;
    }
    return 0;
}

SEC("tp_btf/cgroup_attach_task")
int BPF_PROG(OnMove, struct cgroup* group, const char* path, struct task_struct* task)
{
    MayBeInContainer(task->tgid);
    return 0;
}

char licence[] SEC("license") = "GPL";
