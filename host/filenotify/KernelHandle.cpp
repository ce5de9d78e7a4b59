// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/KernelHandle.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <string_view>

#include "host/sdk/Limits.h"

namespace Engine {

namespace {

// Since Linux 6.5: a handle that need not be fit for opening. glibc 2.36 does not name it.
constexpr int handleAsId = 0x200;

}  // namespace

std::uint64_t KeyOf(const FileHandle& handle)
{
    const std::string_view bytes{reinterpret_cast<const char*>(handle.bytes.data()), handle.bytes.size()};
    constexpr std::uint64_t odd = 0x9E3779B97F4A7C15U;
    return std::hash<std::string_view>{}(bytes) ^ ((handle.fsid + static_cast<std::uint32_t>(handle.type)) * odd);
}

KernelHandle::KernelHandle(const FileHandle& handle)
{
    if (handle.bytes.size() > MAX_HANDLE_SZ) {
        return;
    }
    auto* copy = reinterpret_cast<file_handle*>(buffer.data());
    copy->handle_bytes = static_cast<unsigned int>(handle.bytes.size());
    copy->handle_type = handle.type;
    std::copy(handle.bytes.begin(), handle.bytes.end(), buffer.begin() + sizeof(file_handle));
}

std::error_code KernelHandle::Read(int at, const char* path)
{
    auto* handle = reinterpret_cast<file_handle*>(buffer.data());
    handle->handle_bytes = MAX_HANDLE_SZ;
    int result = name_to_handle_at(at, path, handle, &mount, handleAsId);
    if (result != 0 && errno == EINVAL) {
        handle->handle_bytes = MAX_HANDLE_SZ;
        result = name_to_handle_at(at, path, handle, &mount, 0);
    }
    return result == 0 ? std::error_code{} : std::error_code{errno, std::generic_category()};
}

FileHandle KernelHandle::View(std::uint64_t fsid) const
{
    const auto* handle = reinterpret_cast<const file_handle*>(buffer.data());
    return {fsid, handle->handle_type, std::span{buffer}.subspan(sizeof(file_handle), handle->handle_bytes)};
}

SDK::FileDescriptor KernelHandle::Open(int anchor, int flags, std::error_code& error) const
{
    KernelHandle copy = *this;  // the call takes it as its own
    auto* handle = reinterpret_cast<file_handle*>(copy.buffer.data());
    SDK::FileDescriptor opened =
        SDK::Limits::Opened([=] { return open_by_handle_at(anchor, handle, flags | O_CLOEXEC); });
    error = opened ? std::error_code{} : std::error_code{errno, std::generic_category()};
    return opened;
}

}  // namespace Engine
