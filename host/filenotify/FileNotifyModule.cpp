// SPDX-License-Identifier: Apache-2.0
// What libfilenotify_module.so exports: its module, and the delivery of its message.
#include <exception>
#include <memory>
#include <utility>

#include "framework/Module.h"
#include "host/filenotify/FileNotifyTask.h"
#include "host/filenotify/NotifyLog.h"
#include "messages/AbstractMessageReceiver.h"
#include "messages/FileNotifyMessages.h"

namespace Engine {

int FileNotifyMessage::MessageHandle(void* target)
{
    auto* receiver = dynamic_cast<AbstractMessageReceiver*>(static_cast<Framework::Task*>(target));
    return receiver == nullptr ? -1 : receiver->FileNotifyMessageAction(this);
}

namespace {

// Registers the task "filenotify_task". Without fanotify (no CAP_SYS_ADMIN, a kernel without it or before Linux 5.9)
// there is no such task, one warning says so, and the agent goes on without file notifications.
class FileNotifyModule final : public Framework::Module {
public:
    FileNotifyModule() : Framework::Module("filenotify_module") {}

    int Init() override
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
            static_cast<void>(task.release());  // owned by the framework now
        }
        return Framework::Module::Init();
    }

    int UnInit() override
    {
        UnRegisterTask("filenotify_task");
        return Framework::Module::UnInit();
    }
};

}  // namespace

}  // namespace Engine

extern "C" Framework::Module* CreateModule()
{
    try {
        return new Engine::FileNotifyModule;
    } catch (const std::exception& failure) {
        Engine::NotifyLog::Warning("the module cannot be made: %s", failure.what());
        return nullptr;
    }
}
