// SPDX-License-Identifier: Apache-2.0
#include "host/container/SocketWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cstring>

namespace Engine {

SocketWatch::SocketWatch(const std::string& path)
    : inotify(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)), name(path.substr(path.rfind('/') + 1))
{
    const std::string directory = path.substr(0, path.size() - name.size());
    if (::inotify_add_watch(inotify.Get(), directory.c_str(), IN_CREATE | IN_MOVED_TO | IN_ONLYDIR) < 0) {
        inotify.Reset();
    }
}

bool SocketWatch::HasAppeared()
{
    alignas(inotify_event) std::array<char, 4096> buffer{};
    bool hasAppeared = false;
    for (ssize_t size = 0; (size = ::read(inotify.Get(), buffer.data(), buffer.size())) > 0;) {
        for (ssize_t at = 0; at < size;) {
            inotify_event event{};
            std::memcpy(&event, buffer.data() + at, sizeof event);
            hasAppeared |= event.len != 0 && name == buffer.data() + at + sizeof event;
            at += static_cast<ssize_t>(sizeof event + event.len);
        }
    }
    return hasAppeared;
}

}  // namespace Engine
