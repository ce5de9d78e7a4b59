// SPDX-License-Identifier: Apache-2.0
// The plug-in: libftrace_module.so, which makes the task "ftrace_task".
#include <Poco/Util/Application.h>
#include <unistd.h>

#include <cstddef>
#include <exception>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "framework/Module.h"
#include "host/ftrace/LiveTrace.h"
#include "host/ftrace/Log.h"
#include "host/ftrace/SyscallProbe.h"
#include "host/ftrace/TraceTask.h"
#include "host/sdk/Config.h"

namespace Engine {
namespace {

std::size_t Cpus(int which)
{
    return static_cast<std::size_t>(::sysconf(which));
}

// `source`: as the option --syscalls. Null where the trace alone is wanted, or where this kernel takes no program of
// ours, for which `whyNot` is set: then calls of the host's processes are read as well, and those through the 32-bit
// entry are not seen.
std::unique_ptr<SyscallProbe> MakeProbe(const std::string& source, std::size_t ringKb, bool describesPrograms,
                                        std::string& whyNot)
{
    constexpr unsigned int programBudget = 64;
    if (source == "tracefs") {
        return nullptr;
    }
    using Where = SyscallProbe::Where;
    const Where where = source == "function" ? Where::Functions : source == "enter" ? Where::Enter : Where::Best;
    SyscallProbe::Budgets budgets;
    budgets.programs = describesPrograms ? programBudget : 0;
    try {
        return std::make_unique<SyscallProbe>(ringKb, where, budgets);
    } catch (const std::system_error& error) {
        if (source != "auto") {
            throw;
        }
        whyNot = error.what();
        return nullptr;
    }
}

std::unique_ptr<LiveTrace> MakeTrace()
{
    const auto& settings = Poco::Util::Application::instance().config();
    const std::size_t configuredKb = settings.getUInt(SDK::Config::traceBufferKb, 0);
    const auto sizeOr = [configuredKb](std::size_t defaultKb) {
        return configuredKb != 0 ? configuredKb : defaultKb;
    };
    std::string whyNot;
    auto probe = MakeProbe(settings.getString(SDK::Config::syscallSource, "auto"),
                           sizeOr(SyscallProbe::DefaultRingKb(Cpus(_SC_NPROCESSORS_CONF))),
                           settings.getBool(SDK::Config::describePrograms, false), whyNot);
    const std::size_t bufferKb = sizeOr(TracefsInstance::DefaultBufferKb(Cpus(_SC_NPROCESSORS_ONLN), probe == nullptr));
    auto trace = std::make_unique<LiveTrace>(TracefsInstance::OwnName(), bufferKb, std::move(probe));
    trace->SetWhyWithoutBpf(std::move(whyNot));
    return trace;
}

class FtraceModule final : public Framework::Module {
public:
    FtraceModule() : Module("ftrace_module") {}

    // Removes what dead agents left, makes the trace instance and registers the task. Non-zero, with a log line that
    // says what to do, when there are no trace events to be had; then there is no task either.
    int Init() override
    {
        try {
            if (const std::size_t removed = TracefsInstance::RemoveLeftovers(); removed != 0) {
                TraceLog::Information("removed %z trace instances of agents that have gone", removed);
            }
            task = std::make_unique<TraceTask>(MakeTrace());
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

    int UnInit() override
    {
        UnRegisterTask("ftrace_task");
        task.reset();
        return Module::UnInit();
    }

private:
    std::unique_ptr<TraceTask> task;
};

}  // namespace
}  // namespace Engine

extern "C" Framework::Module* CreateModule()
{
    try {
        return new Engine::FtraceModule;
    } catch (const std::exception&) {
        return nullptr;
    }
}
