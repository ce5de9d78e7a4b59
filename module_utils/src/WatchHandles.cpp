// SPDX-License-Identifier: Apache-2.0
#include "WatchHandles.h"

#include <utility>
#include <vector>

#include "LogSite.h"
#include "messages/FtraceMessages.h"

namespace Engine::FtraceUtils {

namespace {

constexpr char ftraceTask[] = "ftrace_task";
constexpr char fileNotifyTask[] = "filenotify_task";
constexpr long ftraceTimeoutMs = 10000;
constexpr long fileNotifyTimeoutMs = 1000;
constexpr int wantsResult = 2;

// fanotify(7): FAN_CLOSE_WRITE, FAN_ONDIR.
constexpr unsigned int closeWrite = 0x00000008;
constexpr unsigned int onDirectory = 0x40000000;

// Takes the message over. Mind the sense: the framework reports success of a synchronous send as 0.
bool Ask(Framework::Task* task, const char* target, Framework::Message* message, long timeoutMs)
{
    std::string reply;
    return task->SyncSendDirectMsg(target, message, reply, timeoutMs, wantsResult) == 0;
}

_FileNotifyOpt WatchOptions(bool mount)
{
    _FileNotifyOpt options;
    options.mount = mount;
    options.notifyOnly = true;
    options.keepOrder = true;
    return options;
}

void EndFileWatch(Framework::Task* task, const std::string& path, bool& valid)
{
    if (valid) {
        task->SendDirectMsg(fileNotifyTask, new FileNotifyWatchMessage(task, path, false));
    }
    valid = false;
}

}  // namespace

FtraceWatchHandle::FtraceWatchHandle(Framework::Task* task, std::string system, std::string event)
    : task(task), system(std::move(system)), event(std::move(event)), valid(Watch())
{
}

FtraceWatchHandle::~FtraceWatchHandle()
{
    Reset();
}

bool FtraceWatchHandle::Watch()
{
    return Ask(task, ftraceTask, new FtraceWatchMessage(task, system, event, false), ftraceTimeoutMs);
}

void FtraceWatchHandle::Reset()
{
    if (valid) {
        task->SendDirectMsg(ftraceTask, new FtraceWatchMessage(task, system, event, true));
    }
    valid = false;
}

WatchMountHandle::WatchMountHandle(Framework::Task* task, std::string path)
    : task(task), path(std::move(path)), valid(Watch())
{
}

WatchMountHandle::~WatchMountHandle()
{
    Reset();
}

bool WatchMountHandle::Watch()
{
    const std::vector<unsigned int> masks{closeWrite, onDirectory};
    return Ask(task, fileNotifyTask, new FileNotifyWatchMessage(task, path, masks, WatchOptions(true)),
               fileNotifyTimeoutMs);
}

void WatchMountHandle::Reset()
{
    EndFileWatch(task, path, valid);
}

WatchFileHandle::WatchFileHandle(Framework::Task* task, std::string path)
    : task(task), path(std::move(path)), valid(Watch())
{
}

WatchFileHandle::~WatchFileHandle()
{
    Reset();
}

bool WatchFileHandle::Watch()
{
    const std::vector<unsigned int> masks{closeWrite};
    return Ask(task, fileNotifyTask, new FileNotifyWatchMessage(task, path, masks, WatchOptions(false)),
               fileNotifyTimeoutMs);
}

void WatchFileHandle::Reset()
{
    EndFileWatch(task, path, valid);
}

MessageConsumerHandle::MessageConsumerHandle(Framework::Module* module, std::string taskName, unsigned long messageType,
                                             std::string consumerName, Framework::Task* consumer)
    : module(module),
      taskName(std::move(taskName)),
      messageType(messageType),
      consumerName(std::move(consumerName)),
      consumer(consumer),
      valid(Watch())
{
}

MessageConsumerHandle::~MessageConsumerHandle()
{
    Reset();
}

bool MessageConsumerHandle::Watch()
{
    Framework::Task* producer = module->FindTask(taskName);
    if (producer == nullptr) {
        SDK::RootLog::Warning(SDK::At{"WatchHandles", 32}, "Could not find task: %s", taskName);
        return false;
    }
    if (producer->AddConsumer(messageType, consumerName.c_str(), consumer) != 0) {
        SDK::RootLog::Warning(SDK::At{"WatchHandles", 38}, "Registration to task failed: %s", taskName);
        return false;
    }
    SDK::RootLog::Debug(SDK::At{"WatchHandles", 41}, "Registration to task succeeded: %s", taskName);
    return true;
}

void MessageConsumerHandle::Reset()
{
    if (!std::exchange(valid, false)) {
        return;
    }
    if (Framework::Task* producer = module->FindTask(taskName); producer != nullptr) {
        producer->DelConsumer(messageType, consumerName.c_str(), consumer);
        SDK::RootLog::Debug(SDK::At{"WatchHandles", 59}, "Unregistered from task: %s", taskName);
    }
}

}  // namespace Engine::FtraceUtils
