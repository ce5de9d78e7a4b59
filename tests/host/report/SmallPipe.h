// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>

#include "host/sdk/FileDescriptor.h"

// A pipe with two pages of room, so that a test fills it soon; with one it never polls writable beside a byte.
struct SmallPipe {
    SmallPipe()
    {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe2");
        }
        reader.Reset(ends[0]);
        writer.Reset(ends[1]);
        room = ::fcntl(writer.Get(), F_SETPIPE_SZ, 8192);
    }

    // Waits for so many bytes; fewer at the end of the pipe.
    std::string Read(std::size_t bytes) const
    {
        std::string all(bytes, '\0');
        std::size_t done = 0;
        for (ssize_t got = 1; got > 0 && done < bytes; done += static_cast<std::size_t>(std::max<ssize_t>(got, 0))) {
            got = ::read(reader.Get(), all.data() + done, bytes - done);
        }
        all.resize(done);
        return all;
    }

    SDK::FileDescriptor reader;
    SDK::FileDescriptor writer;
    int room = 0;
};
