// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <pthread.h>

namespace SDK {

// A mutex, for std::lock_guard, whose holder gets the priority of a real-time thread that waits for it
// (PTHREAD_PRIO_INHERIT, pthread_mutexattr_setprotocol(3)): where threads of normal priority take it as well, a storm
// of ordinary processes would otherwise keep the holder from running, and with it what waits.
class InheritingMutex {
public:
    InheritingMutex()
    {
        pthread_mutexattr_t attributes;
        ::pthread_mutexattr_init(&attributes);
        ::pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
        ::pthread_mutex_init(&mutex, &attributes);
        ::pthread_mutexattr_destroy(&attributes);
    }
    InheritingMutex(const InheritingMutex&) = delete;
    InheritingMutex& operator=(const InheritingMutex&) = delete;
    ~InheritingMutex() { ::pthread_mutex_destroy(&mutex); }

    void lock() { ::pthread_mutex_lock(&mutex); }
    void unlock() { ::pthread_mutex_unlock(&mutex); }

private:
    pthread_mutex_t mutex{};
};

}  // namespace SDK
