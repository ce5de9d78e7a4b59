/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only */
/* All threads at once, for an agent that has just started or has lost events: /proc takes many times as long. */
#pragma once

#include "host/ftrace/program/State.h"

static __always_inline int IsNotGiven(int process)
{
    for (int i = 0; i < CE_MOST_NOT_GIVEN; ++i) {
        if (tables.notGiven[i] == process) {
            return 1;
        }
    }
    return 0;
}

/* An identity for a process that has none: it came into its control groups before the first program was here. Null when
 * it gets none. */
static __always_inline const struct CeTask* Give(struct task_struct* leader, __u64 groups)
{
    const __u32* number = bpf_map_lookup_elem(&given, &groups);
    if (number == NULL || IsNotGiven(leader->tgid)) {
        return NULL;
    }
    struct CeTask* kept = Kept(leader, BPF_LOCAL_STORAGE_GET_F_CREATE);
    if (kept != NULL && kept->identity == 0) {
        kept->identity = *number;
        kept->isTold = 1;
    }
    return kept;
}

SEC("iter/task")
int ListThreads(struct bpf_iter__task* context)
{
    struct task_struct* task = context->task;
    if (task == NULL) { /* after the last one */
        return 0;
    }
    struct task_struct* leader = task->group_leader;
    struct CeListedThread listed = {
        .started = task->start_time, .thread = task->pid, .process = task->tgid, .parent = leader->real_parent->tgid};
    if ((leader->flags & PF_EXITING) == 0) {
        bpf_probe_read_kernel(&listed.groups, sizeof listed.groups, &leader->cgroups); /* the address as a number */
    }
    const struct CeTask* kept = Kept(leader, 0);
    if (kept != NULL && kept->identity != 0) {
        bpf_task_storage_get(&followed, leader, NULL, BPF_LOCAL_STORAGE_GET_F_CREATE);
    } else if (task == leader && listed.groups != 0) {
        kept = Give(leader, listed.groups);
    }
    if (kept != NULL) {
        listed.identity = kept->identity;
        listed.isSetUp = kept->isSetUp;
    }
    bpf_seq_write(context->meta->seq, &listed, sizeof listed);
    return 0;
}
