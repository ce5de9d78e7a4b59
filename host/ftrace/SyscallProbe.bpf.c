/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only */
/* What processes that may be in a container do, and no others: their system calls, forks, execs, exits and moves, into
 * a ring for each CPU.
 *
 * Which process may be in one is decided here, at the moment at which it changes, so that nothing is missed: a process
 * is in the control groups of its parent, until it is moved, or is made in others at once (clone3(2) with
 * CLONE_INTO_CGROUP). The agent looks at what is left and takes out the processes of the host. What it needs to know of
 * those that come into a container later is kept here with the process. */
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
typedef struct {
    __u32 val;
} kuid_t;
struct kernfs_iattrs {
    kuid_t ia_uid;
};
struct kernfs_node {
    __u64 id;
    struct kernfs_iattrs* iattr; /* null while nothing was changed: root owns it */
};
struct cgroup_root {
    int hierarchy_id;
};
struct cgroup {
    struct kernfs_node* kn;
    struct cgroup_root* root;
};
struct css_set {
    struct cgroup* dfl_cgrp;
};
struct ns_common {
    unsigned int inum;
};
struct mnt_namespace {
    struct ns_common ns;
};
struct nsproxy {
    struct mnt_namespace* mnt_ns;
};
struct super_block {
    __u32 s_dev;
};
struct inode {
    unsigned long i_ino;
    struct super_block* i_sb;
};
struct dentry {
    struct inode* d_inode;
};
struct path {
    struct dentry* dentry;
};
struct fs_struct {
    struct path root;
};
struct task_struct {
    struct thread_info thread_info;
    int prio;
    int pid;
    int tgid;
    char comm[CE_NAME_BYTES];
    struct task_struct* real_parent;
    struct task_struct* group_leader;
    struct css_set* cgroups;
    struct fs_struct* fs;
    struct nsproxy* nsproxy;
};
struct linux_binprm {
    const char* filename;
};
struct pt_regs {
    unsigned long bp, bx, r10, r9, r8, cx, dx, si, di;
};
#pragma clang attribute pop

/* Of thread_info.status, while a call through the 32-bit entry is served (arch/x86/include/asm/thread_info.h). */
#define TS_COMPAT 0x0002

/* Of a number, where a program calls by x32's table (arch/x86/include/uapi/asm/unistd.h). */
#define X32_CALL 0x40000000

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

/* Of every thread that something is to be known about. */
struct {
    __uint(type, BPF_MAP_TYPE_TASK_STORAGE);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __type(key, int);
    __type(value, struct CeTask);
} tasks SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, CE_COUNTS);
    __type(key, __u32);
    __type(value, __u64);
} counts SEC(".maps");

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

static __always_inline struct CeTask* Kept(struct task_struct* task, __u64 flags)
{
    return bpf_task_storage_get(&tasks, task, NULL, flags);
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

static __always_inline __u32 IdentityOf(struct task_struct* task)
{
    const struct CeTask* leader = Kept(task->group_leader, 0);
    return leader == NULL ? 0 : leader->identity;
}

static __always_inline void* Ring(void)
{
    const __u32 cpu = bpf_get_smp_processor_id();
    return bpf_map_lookup_elem(&rings, &cpu);
}

/* The time is taken after the reservation: a reader that took its time before and finds no reservation will see no
 * earlier record. */
static __always_inline void Begin(struct CeRecordHead* record, struct CeEventHead* event, __u16 type)
{
    const __u64 ids = bpf_get_current_pid_tgid();
    record->when = bpf_ktime_get_ns();
    record->process = (int)(ids >> 32);
    record->identity = IdentityOf(bpf_get_current_task_btf());
    event->type = type;
    event->flags = 0;
    event->preemptCount = 0;
    event->thread = (int)(__u32)ids;
}

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
    const int compat = (task->thread_info.status & TS_COMPAT) != 0;
    const struct CeWatchedCall call = calls[compat ? CE_COMPAT : isX32 ? CE_X32 : CE_NATIVE];
    const __u32 process = task->tgid;
    if (call.event == 0 || IsHost(process) || task->pid == tables.ownThread) {
        return 0;
    }
    if (!IsWithinBudgets(task, &call)) {
        Count(CE_SHED);
        return 0;
    }
    void* ring = Ring();
    struct CeSyscallRecord* record = ring == NULL ? NULL : bpf_ringbuf_reserve(ring, sizeof *record, 0);
    if (record == NULL) {
        Count(CE_DROPPED);
        return 0;
    }
    Begin(&record->head, &record->entry.head, call.event);
    record->entry.number = call.number;
    record->entry.padding = 0;
    FillArguments(record->entry.arguments, regs, compat);
    bpf_ringbuf_submit(record, 0);
    return 0;
}

/* Only what a container or a runtime in set-up makes has something to inherit. */
static __always_inline void Inherit(struct task_struct* parent, struct task_struct* child)
{
    const struct CeTask* from = Kept(parent, 0);
    const __u32 identity = IdentityOf(parent);
    const int isInSetUp = from != NULL && from->executed[0] != 0;
    if (identity == 0 && !isInSetUp) {
        return;
    }
    struct CeTask* kept = Kept(child, BPF_LOCAL_STORAGE_GET_F_CREATE);
    if (kept == NULL) {
        return;
    }
    kept->identity = identity;
    kept->isSetUp = from != NULL && from->isSetUp;
    if (from != NULL && isInSetUp) {
        __builtin_memcpy(kept->executed, from->executed, sizeof kept->executed);
        kept->bornInSetUp = 1;
    }
}

/* A container that forks like a storm hides none of its calls by it: what has an identity need not be known before.
 * What is still set up is not counted: the agent must see where that ends. */
static __always_inline int IsWithinLifeBudget(struct task_struct* task)
{
    const __u64 window = bpf_jiffies64() >> settings.windowShift;
    return UsedByGroup(task, CE_LIVES, window) < settings.lifeBudget;
}

static __always_inline void RecordFork(struct task_struct* parent, struct task_struct* child, struct CeTask* kept)
{
    if (kept != NULL && kept->identity != 0) {
        if (!kept->isSetUp && !IsWithinLifeBudget(parent)) {
            Count(CE_SHED_LIFE);
            return;
        }
        kept->isTold = 1;
    }
    void* ring = Ring();
    struct CeForkRecord* record = ring == NULL ? NULL : bpf_ringbuf_reserve(ring, sizeof *record, 0);
    if (record == NULL) {
        Count(CE_DROPPED_LIFE);
        return;
    }
    Begin(&record->head, &record->entry.head, tables.life[CE_FORK]);
    __builtin_memcpy(record->entry.parentName, parent->comm, CE_NAME_BYTES);
    record->entry.parent = parent->pid;
    __builtin_memcpy(record->entry.childName, child->comm, CE_NAME_BYTES);
    record->entry.child = child->pid;
    bpf_ringbuf_submit(record, 0);
}

/* Where a text lies in an event that it follows. */
static __always_inline __u32 Location(__u32 offset, long bytes)
{
    return offset | (bytes > 0 ? (__u32)bytes << 16 : 0);
}

static __always_inline void FillMove(struct CeRecordHead* head, struct CeMoveEvent* event, struct task_struct* task,
                                     const struct cgroup* group, __u32 identity)
{
    Begin(head, &event->head, tables.life[CE_MOVE]);
    const struct kernfs_iattrs* attributes = group->kn->iattr;
    event->group = group->kn->id;
    event->hierarchy = group->root->hierarchy_id;
    event->owner = attributes == NULL ? 0 : attributes->ia_uid.val;
    event->thread = task->pid;
    event->parent = task->real_parent->tgid;
    event->identity = identity;
    event->reserved = 0;
    event->bornInSetUp = 0;
    __builtin_memset(event->executed, 0, sizeof event->executed);
    const struct CeTask* kept = Kept(task, 0);
    if (kept != NULL) {
        __builtin_memcpy(event->executed, kept->executed, sizeof event->executed);
        event->bornInSetUp = kept->bornInSetUp;
    }
}

/* Without a path: of a process that was made in that group. */
static __always_inline void RecordMove(struct task_struct* task, const struct cgroup* group, const char* path,
                                       __u32 identity)
{
    void* ring = Ring();
    struct CeMoveRecord* record = ring == NULL ? NULL : bpf_ringbuf_reserve(ring, sizeof *record, 0);
    if (record == NULL) {
        Count(CE_DROPPED_LIFE);
        return;
    }
    const long bytes = path == NULL ? 0 : bpf_probe_read_kernel_str(record->text, sizeof record->text, path);
    if (bytes < CE_SHORT_PATH) {
        FillMove(&record->head, &record->entry, task, group, identity);
        record->entry.path = Location(sizeof record->entry, bytes);
        bpf_ringbuf_submit(record, 0);
        return;
    }
    bpf_ringbuf_discard(record, 0);
    struct CeLongMoveRecord* longer = bpf_ringbuf_reserve(ring, sizeof *longer, 0);
    if (longer == NULL) {
        Count(CE_DROPPED_LIFE);
        return;
    }
    FillMove(&longer->head, &longer->entry, task, group, identity);
    longer->entry.path =
        Location(sizeof longer->entry, bpf_probe_read_kernel_str(longer->text, sizeof longer->text, path));
    bpf_ringbuf_submit(longer, 0);
}

/* Nothing is recorded of the host's processes, so a mover of which something is recorded may be a container's. */
static __always_inline __u32 Identify(struct task_struct* task, __u32 mover)
{
    struct CeTask* kept = IsHost(mover) ? Kept(task, BPF_LOCAL_STORAGE_GET_F_CREATE) : NULL;
    if (kept == NULL) {
        return 0;
    }
    /* A process is moved in one hierarchy after another, and stays the same one. */
    if (kept->isSetUp && kept->identity != 0) {
        return kept->identity;
    }
    kept->isSetUp = 1;
    kept->isTold = 1;
    kept->identity = __sync_fetch_and_add(&tables.identities, 1) + 1;
    return kept->identity;
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
    const __u32 identity = isMadeElsewhere ? Identify(child, parent->tgid) : 0;
    if (tables.life[CE_FORK] != 0 && !IsHost(child->tgid)) {
        RecordFork(parent, child, Kept(child, 0));
    }
    if (tables.life[CE_MOVE] != 0 && isMadeElsewhere) {
        RecordMove(child, child->cgroups->dfl_cgrp, NULL, identity);
    }
    return 0;
}

/* Whether a file name may be one by which a program executes itself again; the agent looks more closely. */
static __always_inline int MayBeSetUp(const char* name)
{
    return (name[0] == '/' && name[1] == 'p' && name[2] == 'r' && name[3] == 'o' && name[4] == 'c' && name[5] == '/') ||
           (name[0] == '/' && name[1] == 'd' && name[2] == 'e' && name[3] == 'v' && name[4] == '/' && name[5] == 'f');
}

static __always_inline struct CeTask* Remember(struct task_struct* task, const char* filename)
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
    return kept;
}

static __always_inline __u32 PlaceOf(const struct task_struct* task)
{
    const struct inode* root = task->fs->root.dentry->d_inode;
    const int isOtherRoot = root->i_ino != settings.hostRoot || root->i_sb->s_dev != settings.hostDevice;
    const int isElsewhere = task->nsproxy->mnt_ns->ns.inum != settings.hostMounts;
    return CE_PLACE_KNOWN | (isElsewhere ? CE_OTHER_MOUNTS : 0) | (isOtherRoot ? CE_OTHER_ROOT : 0);
}

static __always_inline void FillExec(struct CeRecordHead* head, struct CeExecEvent* event,
                                     const struct task_struct* task, int oldThread)
{
    Begin(head, &event->head, tables.life[CE_EXEC]);
    event->thread = task->pid;
    event->oldThread = oldThread;
    event->place = PlaceOf(task);
}

SEC("tp_btf/sched_process_exec")
int BPF_PROG(OnExec, struct task_struct* task, int oldThread, struct linux_binprm* program)
{
    const char* filename = program->filename;
    struct CeTask* kept = Remember(task, filename);
    if (tables.life[CE_EXEC] == 0 || IsHost(task->tgid)) {
        return 0;
    }
    if (kept != NULL && kept->identity != 0) {
        if (!kept->isSetUp && !IsWithinLifeBudget(task)) {
            Count(CE_SHED_LIFE);
            return 0;
        }
        kept->isTold = 1;
        kept->isSetUp = kept->isSetUp && kept->executed[0] != 0;
    }
    void* ring = Ring();
    struct CeExecRecord* record = ring == NULL ? NULL : bpf_ringbuf_reserve(ring, sizeof *record, 0);
    if (record == NULL) {
        Count(CE_DROPPED_LIFE);
        return 0;
    }
    const long bytes = bpf_probe_read_kernel_str(record->text, sizeof record->text, filename);
    if (bytes < CE_SHORT_PATH) {
        FillExec(&record->head, &record->entry, task, oldThread);
        record->entry.filename = Location(sizeof record->entry, bytes);
        bpf_ringbuf_submit(record, 0);
        return 0;
    }
    bpf_ringbuf_discard(record, 0);
    struct CeLongExecRecord* longer = bpf_ringbuf_reserve(ring, sizeof *longer, 0);
    if (longer == NULL) {
        Count(CE_DROPPED_LIFE);
        return 0;
    }
    FillExec(&longer->head, &longer->entry, task, oldThread);
    longer->entry.filename =
        Location(sizeof longer->entry, bpf_probe_read_kernel_str(longer->text, sizeof longer->text, filename));
    bpf_ringbuf_submit(longer, 0);
    return 0;
}

SEC("tp_btf/sched_process_exit")
int BPF_PROG(OnExit, struct task_struct* task)
{
    if (tables.life[CE_EXIT] == 0 || IsHost(task->tgid)) {
        return 0;
    }
    const struct CeTask* kept = Kept(task, 0);
    if (kept != NULL && kept->identity != 0 && !kept->isTold) {
        Count(CE_SHED_LIFE);
        return 0;
    }
    void* ring = Ring();
    struct CeExitRecord* record = ring == NULL ? NULL : bpf_ringbuf_reserve(ring, sizeof *record, 0);
    if (record == NULL) {
        Count(CE_DROPPED_LIFE);
        return 0;
    }
    Begin(&record->head, &record->entry.head, tables.life[CE_EXIT]);
    __builtin_memcpy(record->entry.name, task->comm, CE_NAME_BYTES);
    record->entry.thread = task->pid;
    record->entry.priority = task->prio;
    bpf_ringbuf_submit(record, 0);
    return 0;
}

SEC("tp_btf/cgroup_attach_task")
int BPF_PROG(OnMove, struct cgroup* group, const char* path, struct task_struct* task)
{
    /* First: a process of the host may move itself. */
    const __u32 identity = Identify(task, bpf_get_current_pid_tgid() >> 32);
    MayBeInContainer(task->tgid);
    if (tables.life[CE_MOVE] != 0) {
        RecordMove(task, group, path, identity);
    }
    return 0;
}

char licence[] SEC("license") = "GPL";
