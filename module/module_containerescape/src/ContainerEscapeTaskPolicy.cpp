// SPDX-License-Identifier: Apache-2.0
#include "ContainerEscapeTaskPolicy.h"

#include <json/value.h>

#include "ContainerEscapeUtil.h"
#include "ModuleLog.h"
#include "PolicyList.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

Scope ScopeIn(const Json::Value& section)
{
    const Json::Value scope = section.get("scope", "thread");
    if (scope == "container") {
        return Scope::Container;
    }
    if (scope != "thread") {
        ModuleLog::Warning(R"(the policy's "scope" is neither "thread" nor "container", going on with "thread")");
    }
    return Scope::Thread;
}

}  // namespace

ContainerEscapeTaskPolicy::ContainerEscapeTaskPolicy() : TaskPolicy("container_escape_detect_task", 180)
{
}

ContainerEscapeTaskPolicy::~ContainerEscapeTaskPolicy() = default;

bool ContainerEscapeTaskPolicy::Parse(const std::string& text)
{
    Json::Value root;
    Json::Value list;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), root) != 0 ||
        !SDK::JsonUtils::GetArrayValue(root, "highrisk_calls", list)) {
        return false;
    }
    content.highRiskCalls = TextsOf(list, ContainerEscapeUtil::SyscallChecker);

    if (!SDK::JsonUtils::GetArrayValue(root, "host_directorys", list)) {
        return false;
    }
    content.scope = ScopeIn(root);
    content.hostDirectories = TextsOf(
        list, content.scope == Scope::Container ? ContainerEscapeUtil::IsPathEntry : ContainerEscapeUtil::PathChecker);
    return true;
}

}  // namespace Engine
