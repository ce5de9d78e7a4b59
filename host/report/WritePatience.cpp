// SPDX-License-Identifier: Apache-2.0
#include "host/report/WritePatience.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

namespace Engine {

WritePatience::WritePatience() : ended(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (!ended) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

void WritePatience::End(std::chrono::milliseconds bound)
{
    Clock::rep none = 0;
    deadline.compare_exchange_strong(none, (Clock::now() + bound).time_since_epoch().count());
    ::eventfd_write(ended.Get(), 1);
}

bool WritePatience::IsOver() const
{
    const Clock::rep when = deadline.load();
    return when != 0 && Clock::now().time_since_epoch().count() >= when;
}

bool WritePatience::WaitWritable(int fd)
{
    while (true) {
        const Clock::rep when = deadline.load();
        // Once the end is known its eventfd is left out: it stays readable and would turn the wait into a spin.
        std::array<pollfd, 2> watched{{{fd, POLLOUT, 0}, {when == 0 ? ended.Get() : -1, POLLIN, 0}}};
        const Clock::duration left = Clock::duration(when) - Clock::now().time_since_epoch();
        const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(left).count();
        const int timeout = when == 0 ? -1 : static_cast<int>(std::max<decltype(milliseconds)>(0, milliseconds));
        const int ready = ::poll(watched.data(), watched.size(), timeout);
        if (watched[0].revents != 0) {
            return true;
        }
        if (ready == 0 || (ready < 0 && errno != EINTR)) {
            return false;
        }
    }
}

}  // namespace Engine
