// SPDX-License-Identifier: Apache-2.0
#include "host/agent/ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>

namespace Agent {

ServiceManager::ServiceManager()
{
    if (const char* name = std::getenv("NOTIFY_SOCKET"); name != nullptr) {
        address = name;
        socket.Reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    }
}

void ServiceManager::Tell(const std::string& state) const
{
    sockaddr_un to{};
    to.sun_family = AF_UNIX;
    if (address.empty() || address.size() >= sizeof(to.sun_path)) {
        return;
    }
    address.copy(to.sun_path, sizeof(to.sun_path) - 1);
    if (address.front() == '@') {
        to.sun_path[0] = '\0';
    }
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size());
    ::sendto(socket.Get(), state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&to), length);
}

}  // namespace Agent
