// SPDX-License-Identifier: Apache-2.0
// The process's resource limits. A process of the same user, or with CAP_SYS_RESOURCE, can lower them from outside
// (prlimit(2)): descriptors, sizes of files and CPU time would run out.
#pragma once

#include <cerrno>
#include <system_error>

#include "host/sdk/FileDescriptor.h"

namespace SDK {

// Any thread.
class Limits {
public:
    // Those in force now are the right ones. Before it nothing is put back.
    static void Keep();

    // Puts back what was changed since, and reports it as an impairment. A hard limit is raised with CAP_SYS_RESOURCE
    // only; without it the lower one becomes the right one, so that it is told of once.
    static void Restore();

    // Whether the error says that descriptors or memory ran out: it tells nothing about what was asked for.
    static bool HasRunOut(std::error_code error)
    {
        return error == std::errc::too_many_files_open || error == std::errc::too_many_files_open_in_system ||
               error == std::errc::not_enough_memory;
    }

    // The descriptor that `open` returns, a call with the errors of open(2). When the process's descriptors have run
    // out, the limits are put back and it is called again.
    template <typename Open>
    static FileDescriptor Opened(const Open& open)
    {
        int fd = open();
        for (int again = 0; fd < 0 && errno == EMFILE && again < retries; ++again) {
            Restore();
            fd = open();
        }
        return FileDescriptor{fd};
    }

private:
    static constexpr int retries = 3;  // the limits may be lowered in a loop
};

}  // namespace SDK
