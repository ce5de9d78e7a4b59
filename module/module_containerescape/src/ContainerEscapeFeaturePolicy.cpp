// SPDX-License-Identifier: Apache-2.0
#include "ContainerEscapeFeaturePolicy.h"

#include <json/value.h>

#include <memory>
#include <utility>

#include "ContainerEscapeTaskPolicy.h"
#include "PolicyList.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

constexpr int policyPriority = 180;

// The namespace check has no section of its own in the document.
std::unique_ptr<Framework::TaskPolicy> NamespaceCheckPolicy()
{
    auto policy = std::make_unique<Framework::TaskPolicy>("container_escape_nss_task", policyPriority);
    policy->firstDelaySeconds = 10;
    policy->periodSeconds = 30;
    return policy;
}

}  // namespace

ContainerEscapeFeaturePolicy::ContainerEscapeFeaturePolicy() : FeaturePolicy("containerescape", policyPriority)
{
}

ContainerEscapeFeaturePolicy::~ContainerEscapeFeaturePolicy() = default;

bool ContainerEscapeFeaturePolicy::Parse(const std::string& text)
{
    Json::Value root;
    Json::Value content;
    Json::Value images;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), root) != 0 ||
        !SDK::JsonUtils::GetSubobjectValue(root, "content", content) ||
        !SDK::JsonUtils::GetArrayValue(content, "image_white_namelist", images)) {
        return false;
    }
    imageWhitelist = TextsOf(images);

    Json::Value section;
    if (!SDK::JsonUtils::GetSubobjectValue(content, "container_escape_detect_task", section)) {
        return false;
    }
    auto detectPolicy = std::make_unique<ContainerEscapeTaskPolicy>();
    if (!detectPolicy->Parse(SDK::JsonUtils::JsonToString(section))) {
        return false;
    }
    Add(std::move(detectPolicy));
    Add(NamespaceCheckPolicy());
    return true;
}

}  // namespace Engine
