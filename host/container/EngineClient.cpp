// SPDX-License-Identifier: Apache-2.0
#include "host/container/EngineClient.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "host/container/ContainerLog.h"
#include "host/sdk/Counters.h"

namespace Engine {

namespace {

constexpr std::chrono::milliseconds probePatience{200};

}  // namespace

bool EngineClient::IsExpected() const
{
    return address.isAsked || ::access(address.path.c_str(), F_OK) == 0;
}

SDK::ContainerNames::EngineState EngineClient::State() const
{
    const std::lock_guard lock(mutex);
    const bool answers = hasReadAll && !isUnreachable;
    return {address.Text(), answers, !answers && (address.isAsked || !problem.empty()), problem};
}

void EngineClient::TryNow()
{
    if (!isConnected) {
        pause = firstPause;
        nextAttempt = Clock::time_point{};
    }
}

void EngineClient::Reached()
{
    isConnected = true;
    if (isUnreachable.exchange(false)) {
        ContainerLog::Information("container engine at %s answers again", address.Text());
    }
    const std::lock_guard lock(mutex);
    problem.clear();
}

void EngineClient::GiveUp(std::string why, SDK::EngineSocket::Protocol other)
{
    using SDK::EngineSocket::Protocol;
    ++SDK::Counters::Get(SDK::CounterName::engineFailures);
    const bool isThere = ::access(address.path.c_str(), F_OK) == 0;
    if (!isUnreachable.exchange(true)) {
        if (isThere && SDK::EngineSocket::Probe(address.path, probePatience) == other) {
            why = other == Protocol::Http2 ? "speaks HTTP/2, not Docker's API; try --engine cri="
                                           : "speaks HTTP/1, not the Kubernetes interface; try --engine docker=";
            why.append(address.path);
        }
        if (address.isAsked || (isThere && !why.empty())) {
            ContainerLog::Warning("container engine at %s: %s; alarms carry no names from there, trying again",
                                  address.Text(), why);
        }
        const std::lock_guard lock(mutex);
        problem = isThere ? std::move(why) : std::string{};
    }
    isConnected = false;
    BackOff();
}

void EngineClient::BackOff()
{
    nextAttempt = now + pause;
    pause = std::min(pause * 2, longestPause);
}

}  // namespace Engine
