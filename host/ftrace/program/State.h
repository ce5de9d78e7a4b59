/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only */
/* What the programs share: the tables of the agent, and what is known of processes and threads. */
#pragma once

#include "host/ftrace/program/KernelTypes.h"

#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

const volatile struct CeProbeSettings settings;
struct CeProbeTables tables;

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(map_flags, BPF_F_MMAPABLE);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct CeProcesses);
} processes SEC(".maps");

/* Of every thread that something is to be known about. */
struct {
    __uint(type, BPF_MAP_TYPE_TASK_STORAGE);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __type(key, int);
    __type(value, struct CeTask);
} tasks SEC(".maps");

/* Of the leaders of processes that were listed for the agent. A table of its own: what a thread does at the same time
 * changes the other one. */
struct {
    __uint(type, BPF_MAP_TYPE_TASK_STORAGE);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __type(key, int);
    __type(value, __u32);
} followed SEC(".maps");

/* By control groups, as in CeListedThread: the identity that those of their processes get that have none. */
struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __uint(max_entries, CE_MOST_GIVEN);
    __type(key, __u64);
    __type(value, __u32);
} given SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, CE_COUNTS);
    __type(key, __u32);
    __type(value, __u64);
} counts SEC(".maps");

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

static __always_inline struct CeTask* Kept(struct task_struct* task, __u64 flags)
{
    return bpf_task_storage_get(&tasks, task, NULL, flags);
}

/* Of its process. */
static __always_inline __u32 IdentityOf(struct task_struct* task)
{
    const struct CeTask* leader = Kept(task->group_leader, 0);
    return leader == NULL ? 0 : leader->identity;
}

static __always_inline __u32 PlaceOf(const struct task_struct* task)
{
    const struct inode* root = task->fs->root.dentry->d_inode;
    const int isOtherRoot = root->i_ino != settings.hostRoot || root->i_sb->s_dev != settings.hostDevice;
    const int isElsewhere = task->nsproxy->mnt_ns->ns.inum != settings.hostMounts;
    return CE_PLACE_KNOWN | (isElsewhere ? CE_OTHER_MOUNTS : 0) | (isOtherRoot ? CE_OTHER_ROOT : 0);
}
