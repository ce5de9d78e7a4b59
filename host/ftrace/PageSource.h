// SPDX-License-Identifier: Apache-2.0
// Where the pages of one CPU's trace buffer come from: the kernel, or memory in tests and measurements.
#pragma once

#include <cstddef>
#include <span>

namespace Engine {

// Thread: the reader's, one at a time.
class PageSource {
public:
    // Copies the oldest unread page to `page` (header, then records; kernel/trace/ring_buffer.c, struct
    // buffer_data_page) and takes it out of the buffer. Never waits. Returns the bytes written, 0 when there is nothing
    // at present.
    virtual std::size_t ReadPage(std::span<std::byte> page) = 0;
    virtual ~PageSource() = default;
};

}  // namespace Engine
