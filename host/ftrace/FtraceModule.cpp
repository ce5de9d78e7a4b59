// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/FtraceModule.h"

#include <Poco/Exception.h>
#include <Poco/Util/Application.h>
#include <unistd.h>

#include <cstddef>
#include <exception>

#include "host/ftrace/LiveTrace.h"
#include "host/ftrace/Log.h"
#include "host/ftrace/TraceTask.h"
#include "host/sdk/Config.h"

namespace Engine {
namespace {

// 0 where nothing is set, or nothing that is a size.
std::size_t ConfiguredBufferKb()
{
    try {
        const int kb = Poco::Util::Application::instance().config().getInt(SDK::Config::traceBufferKb, 0);
        return kb > 0 ? static_cast<std::size_t>(kb) : 0;
    } catch (const Poco::Exception& error) {
        LogWarning("%s is not usable, taking the default: %s", SDK::Config::traceBufferKb, error.displayText().c_str());
        return 0;
    }
}

std::size_t BufferKb()
{
    const std::size_t configured = ConfiguredBufferKb();
    const long cpus = ::sysconf(_SC_NPROCESSORS_ONLN);
    return configured != 0 ? configured : TracefsInstance::DefaultBufferKb(static_cast<std::size_t>(cpus));
}

}  // namespace

FtraceModule::FtraceModule() : Module("ftrace_module")
{
}

FtraceModule::~FtraceModule() = default;

int FtraceModule::Init()
{
    try {
        if (const std::size_t removed = TracefsInstance::RemoveLeftovers(); removed != 0) {
            LogInformation("removed %zu trace instances of agents that have gone", removed);
        }
        task = std::make_unique<TraceTask>(std::make_unique<LiveTrace>(TracefsInstance::OwnName(), BufferKb()));
    } catch (const std::exception& error) {
        LogError("no trace events: %s", error.what());
        return -1;
    }
    if (RegisterTask(task.get(), false) != 0) {
        LogError("no trace events: there is a task ftrace_task already");
        task.reset();
        return -1;
    }
    return Module::Init();
}

int FtraceModule::UnInit()
{
    UnRegisterTask("ftrace_task");
    task.reset();
    return Module::UnInit();
}

}  // namespace Engine

extern "C" Framework::Module* CreateModule()
{
    try {
        return new Engine::FtraceModule;
    } catch (const std::exception&) {
        return nullptr;
    }
}
