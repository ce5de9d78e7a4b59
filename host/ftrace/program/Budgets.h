/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only */
/* How much one thread and one container may record. */
#pragma once

#include "host/ftrace/program/State.h"

/* How many calls of a kind all threads in the same control groups made in the present window. */
struct BudgetKey {
    __u64 groups;
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

/* How many calls were counted in this window before this one. What cannot be remembered is let through: the ring's own
 * bound is left. */
static __always_inline __u64 UsedByGroup(const struct task_struct* task, __u64 event, __u64 window)
{
    const struct BudgetKey key = {(__u64)task->cgroups, event};
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

/* A container that storms does not hide the few calls of its other threads, and a thread that storms does not hide its
 * own other calls: what follows on a call of another kind has a budget of its own, which calls of one kind alone,
 * however many, do not touch. Sequences are what detectors look for. */
static __always_inline int IsWithinBudgets(struct task_struct* task, const struct CeWatchedCall* call)
{
    const __u64 window = bpf_jiffies64() >> settings.windowShift;
    const __u32 kind = call->kind & (CE_KINDS - 1);
    struct CeTask* kept = Kept(task, BPF_LOCAL_STORAGE_GET_F_CREATE);
    if (kept == NULL) {
        return UsedByGroup(task, call->event, window) < settings.groupBudget;
    }
    if (kept->window != window) {
        kept->window = window;
        __builtin_memset(kept->used, 0, sizeof kept->used);
    }
    kept->isTold = 1;
    const int isChange = kept->lastKind != kind;
    kept->lastKind = kind;
    const __u32 used = kept->used[kind];
    kept->used[kind] = used < 0xffff ? used + 1 : used;
    return used < settings.guaranteed || (isChange && UsedByGroup(task, CE_CHANGES, window) < settings.groupBudget) ||
           (used < settings.threadBudget && UsedByGroup(task, call->event, window) < settings.groupBudget);
}

/* A container that forks like a storm hides none of its calls by it: what has an identity need not be known before.
 * What is still set up is not counted: the agent must see where that ends. */
static __always_inline int IsWithinLifeBudget(struct task_struct* task)
{
    const __u64 window = bpf_jiffies64() >> settings.windowShift;
    return UsedByGroup(task, CE_LIVES, window) < settings.lifeBudget;
}
