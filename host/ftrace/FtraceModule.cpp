// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/FtraceModule.h"

#include <Poco/Exception.h>
#include <Poco/Util/Application.h>
#include <unistd.h>

#include <cstddef>
#include <exception>
#include <string>
#include <system_error>
#include <utility>

#include "host/ftrace/LiveTrace.h"
#include "host/ftrace/Log.h"
#include "host/ftrace/SyscallProbe.h"
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
        TraceLog::Warning("%s is not usable, taking the default: %s", SDK::Config::traceBufferKb, error.displayText());
        return 0;
    }
}

std::size_t BufferKb(bool withSystemCalls)
{
    const std::size_t configured = ConfiguredBufferKb();
    const long cpus = ::sysconf(_SC_NPROCESSORS_ONLN);
    return configured != 0 ? configured
                           : TracefsInstance::DefaultBufferKb(static_cast<std::size_t>(cpus), withSystemCalls);
}

std::string ConfiguredSource()
{
    try {
        return Poco::Util::Application::instance().config().getString(SDK::Config::syscallSource, "auto");
    } catch (const Poco::Exception&) {
        return "auto";
    }
}

// Null where the trace alone is wanted, or where this kernel does not let us: then calls of the host's processes are
// read as well, and those through the 32-bit entry are not seen.
std::unique_ptr<SyscallProbe> MakeProbe()
{
    const std::string source = ConfiguredSource();
    if (source == "tracefs") {
        return nullptr;
    }
    try {
        const std::size_t configured = ConfiguredBufferKb();
        const long cpus = ::sysconf(_SC_NPROCESSORS_CONF);
        return std::make_unique<SyscallProbe>(
            configured != 0 ? configured : SyscallProbe::DefaultRingKb(static_cast<std::size_t>(cpus)));
    } catch (const std::system_error& error) {
        if (source == "bpf") {
            throw;
        }
        TraceLog::Warning("system calls come from the trace, without BPF: %s", error.what());
        return nullptr;
    }
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
            TraceLog::Information("removed %z trace instances of agents that have gone", removed);
        }
        std::unique_ptr<SyscallProbe> probe = MakeProbe();
        const std::size_t bufferKb = BufferKb(probe == nullptr);
        task = std::make_unique<TraceTask>(
            std::make_unique<LiveTrace>(TracefsInstance::OwnName(), bufferKb, std::move(probe)));
    } catch (const std::exception& error) {
        TraceLog::Error("no trace events: %s", error.what());
        return -1;
    }
    if (RegisterTask(task.get(), false) != 0) {
        TraceLog::Error("no trace events: there is a task ftrace_task already");
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
