/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only */
/* The ring of each CPU, and how a record gets into it: Reserve, Begin, the fields, Submit. */
#pragma once

#include "host/ftrace/program/Budgets.h"

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

/* How many records wait for the next one to wake the reader. */
struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, __u32);
} waiting SEC(".maps");

/* A ring wakes its reader when that has read all before, which it has not where records wait: then it is to be forced.
 * `mayWait`: the reader need not see the record before the next one that it is woken for; it looks once a second. */
static __always_inline void Submit(void* record, int mayWait)
{
    const __u32 key = 0;
    __u32* count = bpf_map_lookup_elem(&waiting, &key);
    __u64 flags = 0;
    if (count != NULL && mayWait && *count < settings.mostWaiting) {
        ++*count;
        flags = BPF_RB_NO_WAKEUP;
    } else if (count != NULL && *count != 0) {
        *count = 0;
        flags = BPF_RB_FORCE_WAKEUP;
    }
    bpf_ringbuf_submit(record, flags);
}

/* Room for a record of so many bytes, a constant. Null, and counted, when there is none, or the container has had its
 * part; an account of null is held to none. `dropped`: CE_DROPPED or CE_DROPPED_LIFE. */
static __always_inline void* Reserve(struct Account* account, enum Need need, __u64 bytes, enum CeCount dropped)
{
    const __u32 cpu = bpf_get_smp_processor_id();
    void* ring = bpf_map_lookup_elem(&rings, &cpu);
    if (ring == NULL) {
        Count(dropped);
        return NULL;
    }
    if (account != NULL && !TakeRoom(account, ring, need, bytes + BPF_RINGBUF_HDR_SZ)) {
        Count(need == ESSENTIAL ? dropped : dropped == CE_DROPPED ? CE_SHED : CE_SHED_LIFE);
        return NULL;
    }
    void* record = bpf_ringbuf_reserve(ring, bytes, 0);
    if (record == NULL) {
        Count(dropped);
    }
    return record;
}

/* The time is taken after the reservation: a reader that took its time before and finds no reservation will see no
 * earlier record. */
static __always_inline void Begin(struct CeRecordHead* record, struct CeEventHead* event, __u16 type)
{
    const __u64 ids = bpf_get_current_pid_tgid();
    record->when = bpf_ktime_get_ns();
    record->process = (int)(ids >> 32);
    record->hasName = 0;
    const struct CeTask* leader = Kept(bpf_get_current_task_btf()->group_leader, 0);
    record->identity = leader == NULL ? 0 : leader->identity;
    record->isInSetUp = leader != NULL && leader->isSetUp;
    record->hasProgram = 0;
    event->type = type;
    event->flags = 0;
    event->preemptCount = 0;
    event->thread = (int)(__u32)ids;
}

/* Room for a record of `head` bytes and the text that follows, which is copied: nearly all texts fit into the short
 * form. `location` becomes the record's field that says where the text lies in its event. A text of null is empty. */
static __always_inline void* ReserveWithText(struct Account* account, enum Need need, __u64 head, const char* text,
                                             __u32* location)
{
    char* record = Reserve(account, need, head + CE_SHORT_PATH, CE_DROPPED_LIFE);
    if (record == NULL) {
        return NULL;
    }
    long bytes = text == NULL ? 0 : bpf_probe_read_kernel_str(record + head, CE_SHORT_PATH, text);
    if (bytes == CE_SHORT_PATH) {
        bpf_ringbuf_discard(record, 0);
        record = Reserve(account, need, head + CE_LONG_PATH, CE_DROPPED_LIFE);
        if (record == NULL) {
            return NULL;
        }
        bytes = bpf_probe_read_kernel_str(record + head, CE_LONG_PATH, text);
    }
    *location = (__u32)(head - sizeof(struct CeRecordHead)) | (bytes > 0 ? (__u32)bytes << 16 : 0);
    return record;
}
