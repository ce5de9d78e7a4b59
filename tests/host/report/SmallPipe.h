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

    // Everything up to the end, which comes when all writers are closed, or `most` bytes.
    std::string Read(std::size_t most = std::string::npos) const
    {
        std::string all;
        std::array<char, 4096> piece{};
        while (all.size() < most) {
            const ssize_t got = ::read(reader.Get(), piece.data(), std::min(piece.size(), most - all.size()));
            if (got <= 0) {
                break;
            }
            all.append(piece.data(), static_cast<std::size_t>(got));
        }
        return all;
    }

    SDK::FileDescriptor reader;
    SDK::FileDescriptor writer;
    int room = 0;
};
