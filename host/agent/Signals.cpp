// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Signals.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace Agent {

Signals::Signals()
{
    sigset_t taken;
    ::sigemptyset(&taken);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        ::sigaddset(&taken, number);
    }
    ::pthread_sigmask(SIG_BLOCK, &taken, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGXFSZ, SIG_IGN);
    ::signal(SIGXCPU, SIG_IGN);
    descriptor.Reset(::signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!descriptor) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
}

Signals::Event Signals::Wait(std::chrono::milliseconds timeout)
{
    pollfd watched{descriptor.Get(), POLLIN, 0};
    if (!stopSeen && ::poll(&watched, 1, static_cast<int>(timeout.count())) != 1) {
        return Event::Timeout;
    }
    return Take();
}

// Takes all that are pending. Standard signals do not queue (signal(7)), so several reloads are one.
Signals::Event Signals::Take()
{
    bool reload = false;
    signalfd_siginfo info{};
    while (::read(descriptor.Get(), &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
        reload |= info.ssi_signo == SIGHUP;
        stopSeen |= info.ssi_signo != SIGHUP;
    }
    if (stopSeen) {
        return Event::Stop;
    }
    return reload ? Event::Reload : Event::Timeout;
}

}  // namespace Agent
