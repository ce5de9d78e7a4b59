// SPDX-License-Identifier: Apache-2.0
// The operator's exceptions in force: which alarms are counted instead of delivered.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/report/AlarmContext.h"
#include "host/sdk/ExceptionRule.h"
#include "host/sdk/SystemView.h"

namespace Engine {

// An interface of the task "data_comm_report_task", for the program. Any thread.
class ExceptionTaker {
public:
    // In place of those before.
    virtual void TakeExceptions(std::vector<SDK::ExceptionRule> rules) = 0;

protected:
    ~ExceptionTaker() = default;
};

// Any thread.
class Exceptions {
public:
    struct Match {
        std::string name;  // of the exception
        // It is about one program of its container, and its detector is quiet for an hour after an alarm: unless the
        // alarm is refused, what another program does in that hour raises none.
        bool mustBeRefused = false;
    };

    void Replace(std::vector<SDK::ExceptionRule> next);
    bool AreThere() const { return Rules() != nullptr; }

    // The first exception that holds. None for an alarm that may stand for more than the container it names: one of no
    // process or of several, or whose process the host knows in another container; and none where nothing that can be
    // relied on is known of the container yet.
    std::optional<Match> Find(const Alarm& alarm, const AlarmContext& context, SDK::SystemView& system) const;

    // By their names, and all.
    static void Count(const Match& match);

private:
    using RuleList = std::shared_ptr<const std::vector<SDK::ExceptionRule>>;
    RuleList Rules() const;

    mutable std::mutex mutex;
    RuleList rules;  // null: there are none
};

}  // namespace Engine
