/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only */
/* Moves into other control groups, and the identities that they give. */
#pragma once

#include "host/ftrace/program/Ring.h"

/* Without a path: of a process that was made in that group. */
static __always_inline void RecordMove(struct Account* account, struct task_struct* task, const struct cgroup* group,
                                       const char* path, __u32 identity, __u32 before)
{
    __u32 location = 0;
    struct CeMoveRecord* record =
        ReserveWithText(account, ESSENTIAL, offsetof(struct CeMoveRecord, text), path, &location);
    if (record == NULL) {
        return;
    }
    struct CeMoveEvent* event = &record->entry;
    Begin(&record->head, &event->head, tables.life[CE_MOVE]);
    const struct kernfs_iattrs* attributes = group->kn->iattr;
    event->group = group->kn->id;
    event->thread = task->pid;
    event->parent = task->real_parent->tgid;
    event->path = location;
    event->hierarchy = group->root->hierarchy_id;
    event->owner = attributes == NULL ? 0 : attributes->ia_uid.val;
    event->identity = identity;
    event->identityBefore = before;
    event->bornInSetUp = 0;
    __builtin_memset(event->executed, 0, sizeof event->executed);
    const struct CeTask* kept = Kept(task, 0);
    if (kept != NULL) {
        __builtin_memcpy(event->executed, kept->executed, sizeof event->executed);
        event->bornInSetUp = kept->bornInSetUp;
    }
    Submit(record, 0);
}

/* A process that the agent has not excluded yet may be the host's all the same: the agent may lag behind or stand
 * still, and a runtime is quick. What comes from a container has an identity, or a root directory or mounts of its own.
 */
static __always_inline int MayMove(struct task_struct* mover)
{
    return IsHost(mover->tgid) || (IdentityOf(mover) == 0 && PlaceOf(mover) == CE_PLACE_KNOWN);
}

static __always_inline __u32 Identify(struct task_struct* task, struct task_struct* mover)
{
    struct CeTask* kept = MayMove(mover) ? Kept(task, BPF_LOCAL_STORAGE_GET_F_CREATE) : NULL;
    if (kept == NULL) {
        return 0;
    }
    /* A process is moved in one hierarchy after another, and stays the same one. */
    if (kept->isSetUp && kept->identity != 0) {
        return kept->identity;
    }
    kept->isSetUp = kept->identity == 0 || IsHost(task->tgid); /* a container's process stays one */
    kept->isTold = 1;
    kept->identity = __sync_fetch_and_add(&tables.identities, 1) + 1;
    return kept->identity;
}

/* The process is included last: nothing of it may be recorded, with an earlier time, before its move is. */
SEC("tp_btf/cgroup_attach_task")
int BPF_PROG(OnMove, struct cgroup* group, const char* path, struct task_struct* task)
{
    const __u32 before = IdentityOf(task);
    struct task_struct* mover = bpf_get_current_task_btf();
    const __u32 identity = Identify(task, mover);
    if (tables.life[CE_MOVE] != 0) {
        struct Account* account = IsHost(mover->tgid) ? NULL : AccountOf(mover, Kept(mover, 0));
        RecordMove(account, task, group, path, identity, before);
    }
    MayBeInContainer(task->tgid);
    return 0;
}
