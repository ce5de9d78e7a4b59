/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only */
/* Forks, execs and exits, and what is kept of them with a thread. */
#pragma once

#include "host/ftrace/program/Moves.h"
#include "host/ftrace/program/Programs.h"

/* Only what a container or a runtime in set-up makes has something to inherit. A process of the host may have an
 * identity, too: of the service that it was moved to. */
static __always_inline void Inherit(struct task_struct* parent, struct task_struct* child)
{
    const struct CeTask* from = Kept(parent, 0);
    const int isHost = IsHost(parent->tgid);
    const __u32 identity = isHost ? 0 : IdentityOf(parent);
    const int isInSetUp = from != NULL && from->executed[0] != 0;
    if (identity == 0 && !isInSetUp) {
        return;
    }
    struct CeTask* kept = Kept(child, BPF_LOCAL_STORAGE_GET_F_CREATE);
    if (kept == NULL) {
        return;
    }
    kept->identity = identity;
    kept->isSetUp = from != NULL && !isHost && from->isSetUp;
    if (from != NULL && isInSetUp) {
        __builtin_memcpy(kept->executed, from->executed, sizeof kept->executed);
        kept->bornInSetUp = 1;
    }
}

static __always_inline void RecordFork(struct Account* account, struct task_struct* parent, struct task_struct* child)
{
    struct CeTask* kept = Kept(child, 0);
    enum Need need;
    if (!IsWithinLifeBudget(account, kept, &need)) {
        Count(CE_SHED_LIFE);
        return;
    }
    struct CeForkRecord* record = Reserve(account, need, sizeof *record, CE_DROPPED_LIFE);
    if (record == NULL) {
        return;
    }
    if (kept != NULL) {
        kept->isTold = 1;
    }
    struct CeTask* keptOfParent = Kept(parent, 0);
    if (keptOfParent != NULL) {
        keptOfParent->isTold = 1; /* its own fork may have been shed */
    }
    Begin(&record->head, &record->entry.head, tables.life[CE_FORK]);
    __builtin_memcpy(record->entry.parentName, parent->comm, CE_NAME_BYTES);
    record->entry.parent = parent->pid;
    __builtin_memcpy(record->entry.childName, child->comm, CE_NAME_BYTES);
    record->entry.child = child->pid;
    Submit(record, need == ORDINARY); /* a container's process that is known makes one more */
}

/* Before the child runs. */
SEC("tp_btf/sched_process_fork")
int BPF_PROG(OnFork, struct task_struct* parent, struct task_struct* child)
{
    const int isThread = child->tgid == parent->tgid;
    const int isMadeElsewhere = !isThread && parent->cgroups != child->cgroups;
    Inherit(parent, child);
    if (isThread || isMadeElsewhere || !IsHost(parent->tgid)) {
        MayBeInContainer(child->pid); /* a thread's own number is never the host's: its process decides */
    } else {
        __u16* state = StateOf(child->pid);
        if (state != NULL) {
            *(volatile __u16*)state = 1;
        }
    }
    const __u32 identity = isMadeElsewhere ? Identify(child, parent) : 0;
    if (IsHost(child->tgid)) {
        return 0;
    }
    struct Account* account = IsHost(parent->tgid) ? NULL : AccountOf(parent, Kept(parent, 0));
    if (tables.life[CE_FORK] != 0) {
        RecordFork(account, parent, child);
    }
    if (tables.life[CE_MOVE] != 0 && isMadeElsewhere) {
        RecordMove(account, child, child->cgroups->dfl_cgrp, NULL, identity, 0);
    }
    return 0;
}

/* Whether a file name may be one by which a program executes itself again; the agent looks more closely. */
static __always_inline int MayBeSetUp(const char* name)
{
    return (name[0] == '/' && name[1] == 'p' && name[2] == 'r' && name[3] == 'o' && name[4] == 'c' && name[5] == '/') ||
           (name[0] == '/' && name[1] == 'd' && name[2] == 'e' && name[3] == 'v' && name[4] == '/' && name[5] == 'f');
}

static __always_inline struct CeTask* Remember(struct task_struct* task, const char* filename, __u32 place)
{
    char name[CE_SET_UP_NAME] = {0};
    bpf_probe_read_kernel_str(name, sizeof name, filename);
    const int mayBeSetUp = MayBeSetUp(name);
    struct CeTask* kept = Kept(task, mayBeSetUp ? BPF_LOCAL_STORAGE_GET_F_CREATE : 0);
    if (kept == NULL) {
        return NULL;
    }
    if (mayBeSetUp) {
        __builtin_memcpy(kept->executed, name, sizeof name);
    } else {
        kept->executed[0] = 0;
    }
    if (!mayBeSetUp || (place & CE_OTHER_MOUNTS) != 0) {
        kept->isSetUp = 0; /* written only then: a runtime is moved while it executes itself */
    }
    return kept;
}

/* With its fields filled in. `head`: the offset of its text, a constant. */
static __always_inline struct CeExecRecord* ReserveExec(struct Account* account, enum Need need, __u64 head,
                                                        const struct task_struct* task, int oldThread,
                                                        const char* filename, __u32 place)
{
    __u32 location = 0;
    struct CeExecRecord* record = ReserveWithText(account, need, head, filename, &location);
    if (record != NULL) {
        Begin(&record->head, &record->entry.head, tables.life[CE_EXEC]);
        record->entry.filename = location;
        record->entry.thread = task->pid;
        record->entry.oldThread = oldThread;
        record->entry.place = place;
    }
    return record;
}

static __always_inline int RecordExec(const struct task_struct* task, const struct CeTask* kept, int oldThread,
                                      const struct linux_binprm* program, __u32 place, int mayWait)
{
    const char* filename = program->filename;
    struct Account* account = AccountOf(task, kept);
    enum Need need;
    if (!IsWithinLifeBudget(account, kept, &need)) {
        Count(CE_SHED_LIFE);
        return 0;
    }
    if (settings.programBudget != 0 && (account == NULL || Spend(&account->programs, settings.programBudget))) {
        struct CeProgramRecord* described =
            (void*)ReserveExec(account, need, offsetof(struct CeProgramRecord, text), task, oldThread, filename, place);
        if (described == NULL) {
            return 0;
        }
        described->head.hasProgram = 1;
        DescribeProgram(&described->program, task, program);
        Submit(described, mayWait);
        return 1;
    }
    struct CeExecRecord* record =
        ReserveExec(account, need, offsetof(struct CeExecRecord, text), task, oldThread, filename, place);
    if (record == NULL) {
        return 0;
    }
    Submit(record, mayWait);
    return 1;
}

SEC("tp_btf/sched_process_exec")
int BPF_PROG(OnExec, struct task_struct* task, int oldThread, struct linux_binprm* program)
{
    const __u32 place = PlaceOf(task);
    const struct CeTask* before = Kept(task, 0);
    const int isOrdinary = before != NULL && before->identity != 0 && !before->isSetUp; /* nothing begins by it */
    struct CeTask* kept = Remember(task, program->filename, place);
    if (tables.life[CE_EXEC] == 0 || IsHost(task->tgid)) {
        return 0;
    }
    const int isRecorded = RecordExec(task, kept, oldThread, program, place, isOrdinary);
    if (kept != NULL && isRecorded) {
        kept->isTold = 1;
    }
    return 0;
}

SEC("tp_btf/sched_process_exit")
int BPF_PROG(OnExit, struct task_struct* task)
{
    if (tables.life[CE_EXIT] == 0 || IsHost(task->tgid)) {
        return 0;
    }
    const struct CeTask* kept = Kept(task, 0);
    if (kept != NULL && kept->identity != 0 && !kept->isTold &&
        bpf_task_storage_get(&followed, task->group_leader, NULL, 0) == NULL) {
        Count(CE_SHED_LIFE);
        return 0;
    }
    struct CeExitRecord* record = Reserve(AccountOf(task, kept), ESSENTIAL, sizeof *record, CE_DROPPED_LIFE);
    if (record == NULL) {
        return 0;
    }
    Begin(&record->head, &record->entry.head, tables.life[CE_EXIT]);
    __builtin_memcpy(record->entry.name, task->comm, CE_NAME_BYTES);
    record->entry.thread = task->pid;
    record->entry.priority = task->prio;
    Submit(record, 1);
    return 0;
}
