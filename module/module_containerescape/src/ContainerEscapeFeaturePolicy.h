// SPDX-License-Identifier: Apache-2.0
// The policy document of the feature "containerescape":
//   {"content": {"image_white_namelist": [...],
//                "container_escape_detect_task": {"highrisk_calls": [...], "host_directorys": [...],
//                                                 "scope": "thread" or "container"}}}
// All keys but "scope", which is "thread" then, are required, other keys are ignored. Made by the module's policy
// callback, owned by the framework.
#pragma once

#include <string>
#include <unordered_set>

#include "framework/Policy.h"

namespace Engine {

class ContainerEscapeFeaturePolicy : public Framework::FeaturePolicy {
public:
    ContainerEscapeFeaturePolicy();
    ~ContainerEscapeFeaturePolicy() override;

    // Takes the image whitelist over and adds a child policy for each of the feature's tasks. False for anything but a
    // whole document; a whitelist that was read by then stays replaced, and no child is added.
    bool Parse(const std::string& text) override;

    // Image names whose containers are not watched, as the document spells them.
    const std::unordered_set<std::string>& GetContent() const { return imageWhitelist; }

private:
    std::unordered_set<std::string> imageWhitelist;
};

}  // namespace Engine
