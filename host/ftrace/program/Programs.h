/* SPDX-License-Identifier: Apache-2.0 OR GPL-2.0-only */
/* What a process is when it has executed a program. */
#pragma once

#include "host/ftrace/program/State.h"

#include <bpf/bpf_core_read.h>

#define PATH_STEPS 32

/* Up to the root directory of the process, or of what cannot be reached from there, through the mounts in between. How
 * much is used is kept in the record only: a number that the verifier does not follow keeps the loop's states equal. A
 * function of its own, so that it is verified once. The addresses are numbers there. */
__noinline int CopyNames(struct CePath* to, __u64 entryAddress, __u64 mountedAddress, __u64 rootEntryAddress,
                         __u64 rootMountedAddress)
{
    const struct dentry* entry = (const void*)entryAddress;
    const struct vfsmount* mounted = (const void*)mountedAddress;
    const struct dentry* rootEntry = (const void*)rootEntryAddress;
    const struct vfsmount* rootMounted = (const void*)rootMountedAddress;
    if (to == NULL) {
        return 0;
    }
    volatile __u32* used = &to->bytes;
    *used = 0;
    for (int step = 0; step < PATH_STEPS; ++step) {
        const __u32 begin = *used;
        if (begin > CE_PATH_BYTES - CE_NAME_ROOM) {
            break;
        }
        const struct dentry* parent = BPF_CORE_READ(entry, d_parent);
        const int isTop = entry == BPF_CORE_READ(mounted, mnt_root);
        const struct mount* mount = (const void*)mounted - bpf_core_field_offset(struct mount, mnt);
        const struct mount* below = BPF_CORE_READ(mount, mnt_parent);
        if ((entry == rootEntry && mounted == rootMounted) || (isTop && below == mount)) {
            to->names[begin] = 0;
            *used = begin + 1; /* of nothing but the root directory there would be none */
            return 0;
        }
        if (isTop) {
            entry = BPF_CORE_READ(mount, mnt_mountpoint);
            mounted = (const void*)below + bpf_core_field_offset(struct mount, mnt);
            continue;
        }
        const long bytes =
            bpf_probe_read_kernel_str(to->names + begin, CE_NAME_ROOM, BPF_CORE_READ(entry, d_name.name));
        if (bytes <= 0 || bytes >= CE_NAME_ROOM) {
            break;
        }
        *used = begin + bytes;
        if (parent == entry) { /* a file that is in no directory, such as one of memory alone */
            rootEntry = entry;
            rootMounted = mounted;
        }
        entry = parent;
    }
    *used = 0;
    return 0;
}

static __always_inline void CopyPath(struct CePath* to, const struct path* path, const struct path* root)
{
    CopyNames(to, (__u64)BPF_CORE_READ(path, dentry), (__u64)BPF_CORE_READ(path, mnt),
              (__u64)BPF_CORE_READ(root, dentry), (__u64)BPF_CORE_READ(root, mnt));
}

/* `task`: the current one. */
static __always_inline void DescribeProgram(struct CeProgram* to, const struct task_struct* task,
                                            const struct linux_binprm* program)
{
    const struct cred* cred = task->cred;
    to->started = task->start_time;
    to->parent = task->real_parent->tgid;
    to->uid = cred->uid.val;
    to->gid = cred->gid.val;
    to->loginUid = bpf_core_field_exists(task->loginuid) ? task->loginuid.val : ~0U;
    to->capabilities = 0;
    bpf_probe_read_kernel(&to->capabilities, sizeof to->capabilities, &cred->cap_effective);
    const __u64 begin = task->mm->arg_start;
    __u64 bytes = task->mm->arg_end - begin;
    bytes = bytes < CE_ARGUMENT_BYTES ? bytes : CE_ARGUMENT_BYTES;
    to->argumentBytes = bpf_probe_read_user(to->arguments, bytes, (const void*)begin) == 0 ? bytes : 0;
    CopyPath(&to->executable, &program->file->f_path, &task->fs->root);
    CopyPath(&to->workingDirectory, &task->fs->pwd, &task->fs->root);
}
