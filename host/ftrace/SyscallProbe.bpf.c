/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only */
/* What processes that may be in a container do, and no others: their system calls, forks, execs, exits and moves, into
 * a ring for each CPU.
 *
 * Which process may be in one is decided here, at the moment at which it changes, so that nothing is missed: a process
 * is in the control groups of its parent, until it is moved, or is made in others at once (clone3(2) with
 * CLONE_INTO_CGROUP). The agent looks at what is left and takes out the processes of the host. What it needs to know of
 * those that come into a container later is kept here with the process. */
#include "host/ftrace/program/Ring.h"

static __always_inline void FillArguments(__u64* arguments, const struct pt_regs* regs, int compat)
{
    if (compat) {
        arguments[0] = (__u32)regs->bx;
        arguments[1] = (__u32)regs->cx;
        arguments[2] = (__u32)regs->dx;
        arguments[3] = (__u32)regs->si;
        arguments[4] = (__u32)regs->di;
        arguments[5] = (__u32)regs->bp;
    } else {
        arguments[0] = regs->di;
        arguments[1] = regs->si;
        arguments[2] = regs->dx;
        arguments[3] = regs->r10;
        arguments[4] = regs->r8;
        arguments[5] = regs->r9;
    }
}

static __always_inline int IsExcluded(const struct task_struct* task)
{
    return IsHost(task->tgid) || task->pid == tables.ownThread;
}

static __always_inline void Fill(struct CeSyscallRecord* record, const struct task_struct* task, struct CeTask* kept,
                                 const struct CeWatchedCall* call, const struct pt_regs* regs, int compat)
{
    if (kept != NULL) {
        kept->isTold = 1;
    }
    Begin(&record->head, &record->entry.head, call->event);
    record->entry.number = call->number;
    record->entry.parent = task->real_parent->tgid;
    FillArguments(record->entry.arguments, regs, compat);
}

/* A storm's records have no names, and the ring more room for them. Each way has a record of its own from end to end:
 * Linux 6.1 does not know of a pointer that comes from two whether it was found to be null. */
static __always_inline void RecordCall(struct task_struct* task, const struct CeWatchedCall* call,
                                       const struct pt_regs* regs, int compat)
{
    struct CeTask* kept = Kept(task, BPF_LOCAL_STORAGE_GET_F_CREATE);
    struct Account* account;
    enum Need need;
    int isGuaranteed = 0;
    if (!IsWithinBudgets(task, kept, call->kind, &account, &need, &isGuaranteed)) {
        Count(CE_SHED);
        return;
    }
    if (isGuaranteed) {
        struct CeSyscallRecord* record = Reserve(account, need, sizeof *record, CE_DROPPED);
        if (record != NULL) {
            Fill(record, task, kept, call, regs, compat);
            record->head.hasName = 1;
            __builtin_memcpy(record->name, task->comm, CE_NAME_BYTES);
            Submit(record, 0);
        }
        return;
    }
    struct CeSyscallRecord* record =
        Reserve(account, need, __builtin_offsetof(struct CeSyscallRecord, name), CE_DROPPED);
    if (record != NULL) {
        Fill(record, task, kept, call, regs, compat);
        Submit(record, 0);
    }
}

static __always_inline int IsCompat(const struct task_struct* task)
{
    return (task->thread_info.status & TS_COMPAT) != 0;
}

/* At the entry of a function that serves a call, whichever the entry into the kernel. A copy is attached to each; the
 * one that is named here shows whether the kernel takes such a program at all: it is the first in the file, so that a
 * kernel that does not has checked no other one in vain. */
SEC("fentry/__x64_sys_ptrace")
int BPF_PROG(OnCallFunction, struct pt_regs* regs)
{
    const struct CeWatchedCall call = tables.watched[bpf_get_attach_cookie(ctx) & (CE_CALLS - 1)][CE_NATIVE];
    struct task_struct* task = bpf_get_current_task_btf();
    if (call.event != 0 && !IsExcluded(task)) {
        RecordCall(task, &call, regs, IsCompat(task));
    }
    return 0;
}

SEC("tp_btf/sys_enter")
int BPF_PROG(OnSystemCall, struct pt_regs* regs, long number)
{
    const int isX32 = settings.hasX32 && (number & X32_CALL) != 0;
    if (isX32) {
        number &= ~X32_CALL;
    }
    if ((unsigned long)number >= CE_CALLS) {
        return 0;
    }
    /* This much is done for every call on the machine, all that follows only for those that are watched. */
    const struct CeWatchedCall* calls = tables.watched[number & (CE_CALLS - 1)];
    if (calls[CE_NATIVE].event == 0 && calls[CE_COMPAT].event == 0 && calls[CE_X32].event == 0) {
        return 0;
    }
    struct task_struct* task = bpf_get_current_task_btf();
    const int compat = IsCompat(task);
    const struct CeWatchedCall call = calls[compat ? CE_COMPAT : isX32 ? CE_X32 : CE_NATIVE];
    if (call.event != 0 && !call.hasFunctions && !IsExcluded(task)) {
        RecordCall(task, &call, regs, compat);
    }
    return 0;
}

char licence[] SEC("license") = "GPL";

/* The other programs, which come after the one above. */
#include "host/ftrace/program/Listing.h"
#include "host/ftrace/program/Lives.h"
