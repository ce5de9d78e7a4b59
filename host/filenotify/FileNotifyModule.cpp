// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/FileNotifyModule.h"

#include <exception>
#include <memory>
#include <utility>

#include "host/filenotify/FileNotifyTask.h"
#include "host/filenotify/NotifyLog.h"

namespace Engine {

FileNotifyModule::FileNotifyModule() : Framework::Module("filenotify_module")
{
}

int FileNotifyModule::Init()
{
    FanotifyGroup group;
    if (const std::error_code error = group.Open()) {
        NotifyLog::Warning("no file notifications, going on without them: fanotify_init: %s", error.message());
        return Framework::Module::Init();
    }
    auto task = std::make_unique<FileNotifyTask>(std::move(group));
    if (RegisterTask(task.get(), true) != 0) {
        NotifyLog::Warning("no file notifications, going on without them: %s", "the name filenotify_task is taken");
    } else {
        static_cast<void>(task.release());  // the framework's now
    }
    return Framework::Module::Init();
}

int FileNotifyModule::UnInit()
{
    UnRegisterTask("filenotify_task");
    return Framework::Module::UnInit();
}

}  // namespace Engine

Framework::Module* CreateModule()
{
    try {
        return new Engine::FileNotifyModule;
    } catch (const std::exception& failure) {
        Engine::NotifyLog::Warning("the module cannot be made: %s", failure.what());
        return nullptr;
    }
}
