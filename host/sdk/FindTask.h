// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Poco/Exception.h>
#include <Poco/Util/Application.h>

#include <string>

#include "framework/Engine.h"

namespace SDK {

// The agent's task of that name; null: there is none, or no agent. Any thread.
inline Framework::Task* FindTask(const std::string& name)
{
    try {
        auto* engine = dynamic_cast<Framework::Engine*>(&Poco::Util::Application::instance());
        return engine != nullptr ? engine->FindTask(name) : nullptr;
    } catch (const Poco::Exception&) {
        return nullptr;  // there is no application
    }
}

// Whether the task of that name is `task` and being restarted.
inline bool IsRestarting(const std::string& name, const Framework::Task* task)
{
    const Framework::Task* found = FindTask(name);
    return found != nullptr && found == task && found->IsRestarting();
}

}  // namespace SDK
