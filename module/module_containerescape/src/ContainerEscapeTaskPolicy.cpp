// SPDX-License-Identifier: Apache-2.0
#include "ContainerEscapeTaskPolicy.h"

#include <json/value.h>

#include "ContainerEscapeUtil.h"
#include "PolicyList.h"
#include "sdk/JsonUtils.h"

namespace Engine {

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
    content.hostDirectories = TextsOf(list, ContainerEscapeUtil::PathChecker);
    return true;
}

}  // namespace Engine
