// SPDX-License-Identifier: Apache-2.0
// The alarm document of the detectors: BaseSubmodule's side that reports.
#include <memory>
#include <utility>

#include "BaseSubmodule.h"
#include "ContainerEscapeDetectTask.h"
#include "ModuleLog.h"
#include "ModuleUtils.h"
#include "sdk/CryptoCodeUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/TimeUtils.h"

namespace Engine {

namespace {

constexpr char source[] = "BaseSubmodule";
constexpr char alarmType[] = "2";  // the report type under which SendAlarmMessage sends

// A key that the document refers to: a plain text would be copied for each document.
Json::StaticString operator""_key(const char* text, std::size_t /*length*/)
{
    return Json::StaticString{text};
}

Json::Value NewDocument()
{
    Json::Value document;
    document["event_id"_key] = SDK::CryptoCodeUtils::GenerateUUID();
    document["occur_time"_key] = Json::Int64{SDK::TimeUtils::GetCurrentTimestampS()};
    document["event_count"_key] = 1;  // merged repeats are not counted into it
    document["detect_module"_key] = Json::StaticString{"containerescape_module"};
    return document;
}

void AddAlarmClass(const AlertInfo& info, Json::Value& document)
{
    document["event_classid"_key] = info.classId;
    document["event_category"_key] = info.eventCategory;
    document["event_type"_key] = info.eventType;
    document["severity"_key] = info.severity;
    document["attack_phase"_key] = info.attackPhase;
    document["attack_tag"_key] = info.attackTag;
    document["event_name"_key] = info.eventName;
    document["confidence"_key] = info.confidence;
}

}  // namespace

bool BaseSubmodule::Alert(AlertInfo& info, const Json::Value& forensic, const Json::Value& file)
{
    Json::Value document = NewDocument();
    AddAlarmClass(info, document);

    GetProcessDetailByPid(info.pid, info);
    Json::Value process;
    process["process_pid"_key] = info.pid;
    process["process_name"_key] = info.processName;

    Json::Value resource;  // stays null when nothing is known
    AddContainer(info, document, resource);
    document["resource_info"_key] = std::move(resource);
    document["process_info"_key][0] = std::move(process);
    if (!forensic.empty()) {
        document["forensic_info"_key] = forensic;
    }
    if (!file.empty()) {
        document["file_info"_key][0] = file;
    }

    const std::string text = SDK::JsonUtils::JsonToString(document);
    ModuleLog::Debug(At{source, 97}, "Alert msgid='%s' msg='%s'", alarmType, text);
    const bool isSent = Send(info, forensic.get("sys_call", "").asString(), text);
    return isSent || task.GetScope() == Scope::Thread;
}

// The filter merges alarms of one name; those of a known container only with alarms of the same container and call.
bool BaseSubmodule::Send(const AlertInfo& info, const std::string& call, const std::string& text)
{
    std::string kind = info.eventName;
    if (const ScopeKey container = task.KeyOf(info.pid, hostKey); container != hostKey) {
        kind.append(1, '\n').append(std::to_string(container)).append(1, '\n').append(call);
    }
    if (!task.GetAlarmFilter().CheckAndEnqueue(std::move(kind), task.name())) {
        task.CountMerged(info.classId);
        return false;
    }
    return SendAlarmMessage(info.classId, text);
}

void BaseSubmodule::AddContainer(const AlertInfo& info, Json::Value& document, Json::Value& resource)
{
    const std::string containerId = ResolveContainerId(info, resource);
    std::shared_ptr<ContainerInfo> container;
    if (containerId.empty() || metaInfo == nullptr || !metaInfo->GetContainerById(containerId, container)) {
        ModuleLog::Debug(At{source, 82}, "containerid is empty or can not get the container info %s", containerId);
        return;
    }
    document["container_name"_key] = container->name;
    resource["image_id"_key] = container->imageId;
    document["image_name"_key] = container->imageName;
}

// From the process table, else from the container of the parent, else from that of the process. Empty: from none.
std::string BaseSubmodule::ResolveContainerId(const AlertInfo& info, Json::Value& resource)
{
    std::string containerId;
    if (task.GetContainerIDByRecordMap(info.pid, containerId) == 0) {
        resource["container_id"_key] = containerId;
        return containerId;
    }
    std::shared_ptr<ContainerInfo> container;
    if (metaInfo != nullptr &&
        (metaInfo->GetContainerByPid(info.ppid, container) || metaInfo->GetContainerByPid(info.pid, container))) {
        resource["container_id"_key] = container->id;
        containerId = container->id;
        ModuleLog::Debug(At{source, 68}, "set container id %s", containerId);
        return containerId;
    }
    ModuleLog::Debug(At{source, 72}, "can not get container info for the parent process %d by metainfo.", info.ppid);
    return containerId;
}

}  // namespace Engine
