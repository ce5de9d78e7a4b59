/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only */
/* The parts of the kernel's types that are read; their offsets come from the running kernel's BTF. */
#pragma once

#include "host/ftrace/SyscallProbeLayout.h"

#include <linux/bpf.h>
#include <linux/types.h>

#pragma clang attribute push(__attribute__((preserve_access_index)), apply_to = record)
struct thread_info {
    __u32 status;
};
typedef struct {
    __u32 val;
} kuid_t;
typedef struct {
    __u32 val;
} kgid_t;
typedef struct {
    __u64 val;
} kernel_cap_t; /* two numbers of 32 bits until Linux 6.2 */
struct cred {
    kuid_t uid;
    kgid_t gid;
    kernel_cap_t cap_effective;
};
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
struct qstr {
    const unsigned char* name;
};
struct dentry {
    struct dentry* d_parent;
    struct qstr d_name;
    struct inode* d_inode;
};
struct vfsmount {
    struct dentry* mnt_root;
};
struct mount {
    struct mount* mnt_parent;
    struct dentry* mnt_mountpoint;
    struct vfsmount mnt;
};
struct path {
    struct vfsmount* mnt;
    struct dentry* dentry;
};
struct fs_struct {
    struct path root;
    struct path pwd;
};
struct file {
    struct path f_path;
};
struct mm_struct {
    unsigned long arg_start;
    unsigned long arg_end;
};
struct pid_namespace;
struct upid {
    struct pid_namespace* ns;
};
struct pid {
    unsigned int level;
    struct upid numbers[];
};
struct task_struct {
    struct thread_info thread_info;
    int prio;
    unsigned int flags;
    int pid;
    int tgid;
    char comm[CE_NAME_BYTES];
    __u64 start_time;
    struct mm_struct* mm;
    const struct cred* cred;
    kuid_t loginuid;
    struct task_struct* real_parent;
    struct task_struct* group_leader;
    struct css_set* cgroups;
    struct fs_struct* fs;
    struct pid* thread_pid;
    struct nsproxy* nsproxy;
};
struct linux_binprm {
    struct file* file;
    const char* filename;
};
struct seq_file;
struct bpf_iter_meta {
    struct seq_file* seq;
};
struct bpf_iter__task {
    struct bpf_iter_meta* meta;
    struct task_struct* task;
};
struct pt_regs {
    unsigned long bp, bx, r10, r9, r8, cx, dx, si, di;
};
#pragma clang attribute pop

/* Of task_struct.flags: the thread is ending (include/linux/sched.h). */
#define PF_EXITING 0x00000004

/* Of thread_info.status, while a call through the 32-bit entry is served (arch/x86/include/asm/thread_info.h). */
#define TS_COMPAT 0x0002

/* Of a number, where a program calls by x32's table (arch/x86/include/uapi/asm/unistd.h). */
#define X32_CALL 0x40000000
