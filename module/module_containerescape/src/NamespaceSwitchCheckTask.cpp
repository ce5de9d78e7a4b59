// SPDX-License-Identifier: Apache-2.0
#include "NamespaceSwitchCheckTask.h"

#include <json/value.h>

#include <cstdint>

#include "ModuleLog.h"
#include "ModuleUtils.h"
#include "sdk/CryptoCodeUtils.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/NamespaceUtils.h"
#include "sdk/TimeUtils.h"

namespace Engine {
namespace {

constexpr char taskName[] = "container_escape_nss_task";
constexpr unsigned int queueCapacity = 1024;
constexpr char alarmType[] = "2";

// Ticks of the last adjustment (SDK::TimeUtils::GetCurrentSystemTickUsed), one for each place that yields.
std::uint64_t roundAdjustTick = 0;
std::uint64_t processAdjustTick = 0;

constexpr At Line(int line)
{
    return At{"NamespaceSwitchCheckTask", line};
}

// Lets the limiter slow this thread down once it has used up its suggested run.
void Throttle(std::uint64_t& lastAdjust, int line)
{
    if (!SDK::InnerCpuCtrlUtils::IsEnabled()) {
        return;
    }
    const std::uint64_t now = SDK::TimeUtils::GetCurrentSystemTickUsed();
    const std::uint64_t elapsed = now > lastAdjust ? now - lastAdjust : lastAdjust - now;
    if (elapsed > SDK::InnerCpuCtrlUtils::GetSuggestedRunTick()) {
        SDK::InnerCpuCtrlUtils::AdjustThreadCpu("module/module_containerescape/src/NamespaceSwitchCheckTask.cpp", line,
                                                taskName, now, elapsed);
        lastAdjust = now;
    }
}

std::map<int, std::shared_ptr<ProcsMessage::procInfo>> CurrentProcesses()
{
    std::map<int, std::shared_ptr<ProcsMessage::procInfo>> processes;
    if (auto* list = dynamic_cast<ProcsFullTask*>(FindAgentTask("procs_full_task"))) {
        list->GetProcsMap(processes);
    }
    return processes;
}

// Null when there is no service, it has not read the containers yet, or does not know this one.
std::shared_ptr<ContainerInfo> FindContainer(const std::string& containerId)
{
    auto* service = dynamic_cast<ContainerMetaInfo*>(FindAgentTask("container_collect_task"));
    std::shared_ptr<ContainerInfo> container;
    if (service == nullptr || !service->IsAvailable() || !service->GetContainerById(containerId, container)) {
        return nullptr;
    }
    return container;
}

void AddProcess(const ProcsMessage::procInfo& process, Json::Value& document)
{
    Json::Value entry;
    entry["process_pid"] = process.pid;
    entry["process_path"] = process.path;
    entry["process_name"] = process.name;
    entry["process_cmdline"] = process.cmdline;
    document["process_info"][0] = entry;
}

void AddContainer(const ContainerInfo& container, Json::Value& document)
{
    document["container_name"] = container.name;
    document["image_name"] = container.imageName;
    Json::Value resource;
    resource["container_id"] = container.id;
    resource["image_id"] = container.imageId;
    document["resource_info"] = resource;
}

// Close to the detectors' alarm document, but not the same: mind "type", "serverity" (receivers know the key by this
// spelling) and the class, which it shares with another alarm.
Json::Value MakeDocument(const ProcsMessage::procInfo& process, const ContainerInfo& container)
{
    Json::Value document;
    document["event_id"] = SDK::CryptoCodeUtils::GenerateUUID();
    document["event_name"] = "Namespace switch attack";
    document["event_classid"] = "containerescape_0001";
    document["type"] = "container_user_file_violation";
    document["occur_time"] = Json::Int64{SDK::TimeUtils::GetCurrentTimestampS()};
    document["event_category"] = 3000;
    document["event_type"] = 2042;
    document["serverity"] = 3;
    document["event_count"] = 1;
    document["attack_phase"] = 4;
    document["attack_tag"] = 2;
    document["confidence"] = 60;
    document["detect_module"] = "containerescape_module";
    AddContainer(container, document);
    AddProcess(process, document);
    return document;
}

}  // namespace

bool CheckNameSpaceInfo(const std::map<std::string, std::string>& processNs,
                        const std::map<std::string, std::string>& containerNs, std::string& nsName)
{
    for (const auto& [kind, identity] : processNs) {
        const auto own = containerNs.find(kind);
        if (own == containerNs.end()) {
            ModuleLog::Debug(Line(53), "Container escape nss task docker ns not find %s", kind);
            nsName = kind;
            return false;
        }
        if (own->second != identity) {
            ModuleLog::Debug(Line(60), "Container escape nss task ns check failed: %s,%s", identity, own->second);
            nsName = kind;
            return false;
        }
    }
    return true;
}

NamespaceSwitchTask::NamespaceSwitchTask(const std::string& featureName)
    : Framework::Task(taskName, featureName, Framework::TaskCondition::Periodic, queueCapacity)
{
}

NamespaceSwitchTask::~NamespaceSwitchTask() = default;

int NamespaceSwitchTask::Init()
{
    Framework::Task::Init();
    return 0;
}

int NamespaceSwitchTask::UnInit()
{
    return Framework::Task::UnInit();
}

int NamespaceSwitchTask::Run()
{
    BatchCheckProcess();
    return 0;
}

void NamespaceSwitchTask::BatchCheckProcess()
{
    Throttle(roundAdjustTick, 70);
    ModuleLog::Debug(Line(71), "Container escape nss task timer process");
    for (const auto& [pid, process] : CurrentProcesses()) {
        Throttle(processAdjustTick, 80);
        CheckProcess(process);
    }
}

void NamespaceSwitchTask::CheckProcess(const std::shared_ptr<ProcsMessage::procInfo>& process)
{
    const std::string& containerId = process->containerId;
    if (containerId.empty()) {
        return;
    }
    ModuleLog::Debug(Line(89), "Container escape nss task check process, pid=%d, path=%s, cid=%s", process->pid,
                     process->path, containerId);
    const std::shared_ptr<ContainerInfo> container = FindContainer(containerId);
    if (container == nullptr) {
        ModuleLog::Debug(Line(96), "Container escape nss task get container info failed. cid(%s)", containerId);
        return;
    }
    std::map<std::string, std::string> processNs;
    if (SDK::NamespaceUtils::GetProcessNamespace(process->pid, processNs) < 0) {
        ModuleLog::Debug(Line(103), "Container escape nss task get process ns info failed. pid(%d)", process->pid);
        return;
    }
    std::string nsName;
    if (CheckNameSpaceInfo(processNs, container->namespaces, nsName)) {
        return;
    }
    ModuleLog::Information(Line(111), "Container escape nss task check failed. pid:%d, container:%s, nsName:%s",
                           process->pid, container->name, nsName);
    Alert(process, container, nsName);
}

void NamespaceSwitchTask::Alert(const std::shared_ptr<ProcsMessage::procInfo>& process,
                                const std::shared_ptr<ContainerInfo>& container, const std::string& /*nsName*/)
{
    const std::string text = SDK::JsonUtils::JsonToString(MakeDocument(*process, *container));
    ModuleLog::Information(Line(160), "Container escape nss task send ns switch alarm, alarm info:%s", text);
    SendDirectMsg("data_comm_report_task", new Framework::DataMessage(alarmType, text));
}

}  // namespace Engine
