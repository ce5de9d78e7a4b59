/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only */
/* How much one thread and one container may record. */
#pragma once

#include "host/ftrace/program/State.h"

/* What a container has recorded on one CPU. Nothing takes one away from a container that makes calls: it becomes
 * another's after a window without any. */
struct Account {
    __u64 container; /* see ContainerOf */
    __u64 window;    /* in which the budgets were counted */
    __u64 since;     /* the position in the ring at which `held` began to be counted */
    __u64 until;     /* that behind the last record */
    __u32 held;      /* bytes in the ring from `since` on */
    __u32 heldBefore;
    __u16 changes;  /* calls that followed on one of another kind */
    __u16 lives;    /* forks and execs */
    __u16 programs; /* execs with what was executed */
    __u16 used[CE_KINDS];
};

/* Where a container is counted follows from its number; containers of one place have an account each until there are
 * more than so many in a window. */
#define ACCOUNTS_PER_PLACE 4
#define PLACE_BITS 7

struct Place {
    struct Account accounts[ACCOUNTS_PER_PLACE];
};
struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 1 << PLACE_BITS);
    __type(key, __u32);
    __type(value, struct Place);
} places SEC(".maps");

/* A number for the container that a thread is in: its identity; or else the process id namespace below the first one,
 * which nothing that it does changes, as what it makes lies deeper; or else its control groups. So a process of a
 * container can have another number only where it shares the process ids of the host, was there before the agent, and
 * can make control groups or process id namespaces. */
static __always_inline __u64 ContainerOf(const struct task_struct* task, const struct CeTask* kept)
{
    if (kept != NULL && kept->identity != 0) {
        return kept->identity;
    }
    const struct pid* pid = task->thread_pid;
    const void* place = pid->level != 0 ? (const void*)&pid->numbers[1].ns : (const void*)&task->cgroups;
    __u64 found = 0;
    bpf_probe_read_kernel(&found, sizeof found, place); /* the address as a number */
    return found;
}

static __always_inline __u64 Window(void)
{
    return bpf_jiffies64() >> settings.windowShift;
}

/* Not of a process of the host. Null where there is none: the ring's own bound is left. */
static __always_inline struct Account* AccountOf(const struct task_struct* task, const struct CeTask* kept)
{
    const __u64 window = Window();
    const __u64 container = ContainerOf(task, kept);
    const __u64 scattered = container * 0x9E3779B97F4A7C15ULL;
    const __u32 number = scattered >> (64 - PLACE_BITS);
    struct Place* place = bpf_map_lookup_elem(&places, &number);
    if (place == NULL) {
        return NULL;
    }
    __u32 chosen = scattered; /* an account is shared when all were used in this window */
    for (__u32 i = 0; i < ACCOUNTS_PER_PLACE; ++i) {
        if (place->accounts[i].container == container) {
            chosen = i;
            break;
        }
        if (place->accounts[i].window != window) {
            chosen = i;
        }
    }
    struct Account* account = &place->accounts[chosen & (ACCOUNTS_PER_PLACE - 1)];
    if (account->window != window) {
        account->window = window;
        account->changes = 0;
        account->lives = 0;
        account->programs = 0;
        __builtin_memset(account->used, 0, sizeof account->used);
        if (account->container != container) {
            account->container = container;
            account->held = 0;
            account->heldBefore = 0;
        }
    }
    return account;
}

/* How much a record matters when a ring fills up, because its reader does not keep up. */
enum Need {
    ORDINARY,
    ESSENTIAL, /* a detector's decision, or what is known of a process, hangs on it */
};

/* A container may hold so much of a ring as is proportional to what is free: of ordinary records at most a third of the
 * ring, of essential ones two thirds. So one container cannot fill a ring, nor can several: what is free becomes less,
 * and all of them are held to less (dynamic thresholds: Choudhury and Hahne, IEEE/ACM Transactions on Networking 6(2),
 * 1998). */
static __always_inline int TakeRoom(struct Account* account, void* ring, enum Need need, __u32 bytes)
{
    const __u64 written = bpf_ringbuf_query(ring, BPF_RB_PROD_POS);
    const __u64 read = bpf_ringbuf_query(ring, BPF_RB_CONS_POS);
    if (read >= account->since) { /* what was counted before `since` has been read */
        account->heldBefore = read < account->until ? account->held : 0;
        account->held = 0;
        account->since = written;
    }
    const __u64 free = settings.ringBytes - (written - read);
    const __u64 held = (__u64)account->held + account->heldBefore;
    if (need == ESSENTIAL ? held > 2 * free : 2 * held > free) {
        return 0;
    }
    account->held += bytes;
    account->until = written + bytes;
    return 1;
}

static __always_inline int Spend(__u16* used, __u32 budget)
{
    if (*used >= budget) {
        return 0;
    }
    ++*used;
    return 1;
}

/* A container that storms does not hide the few calls of its other threads, and a thread that storms does not hide its
 * own other calls: what follows on a call of another kind has a budget of its own, which calls of one kind alone,
 * however many, do not touch. Sequences are what detectors look for. `isGuaranteed`: whatever else was made. */
static __always_inline int IsWithinBudgets(const struct task_struct* task, struct CeTask* kept, __u32 kind,
                                           struct Account** account, enum Need* need, int* isGuaranteed)
{
    kind &= CE_KINDS - 1;
    *account = NULL;
    *need = ORDINARY;
    int isChange = 0;
    __u32 used = settings.guaranteed;
    if (kept != NULL) {
        const __u64 window = Window();
        if (kept->window != window) {
            kept->window = window;
            __builtin_memset(kept->used, 0, sizeof kept->used);
        }
        isChange = kept->lastKind != kind;
        kept->lastKind = kind;
        used = kept->used[kind];
        kept->used[kind] = used < 0xffff ? used + 1 : used;
        if (used >= settings.guaranteed && used >= settings.threadBudget && !isChange) {
            return 0;
        }
    }
    struct Account* found = AccountOf(task, kept);
    *account = found;
    *isGuaranteed = used < settings.guaranteed;
    if (*isGuaranteed || (isChange && (found == NULL || Spend(&found->changes, settings.groupBudget)))) {
        *need = ESSENTIAL;
        return 1;
    }
    return used < settings.threadBudget && (found == NULL || Spend(&found->used[kind], settings.groupBudget));
}

/* A container that forks like a storm hides none of its calls by it: what has an identity need not be known before.
 * What is still set up is not counted: the agent must see where that ends. */
static __always_inline int IsWithinLifeBudget(struct Account* account, const struct CeTask* kept, enum Need* need)
{
    const int isKnown = kept != NULL && kept->identity != 0 && !kept->isSetUp;
    *need = isKnown ? ORDINARY : ESSENTIAL;
    return !isKnown || account == NULL || Spend(&account->lives, settings.lifeBudget);
}
