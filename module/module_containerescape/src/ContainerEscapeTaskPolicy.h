// SPDX-License-Identifier: Apache-2.0
// The section "container_escape_detect_task" of the policy document. Owned by its feature policy.
#pragma once

#include <string>

#include "ContainerEscapeDetectPolicyContent.h"
#include "framework/Policy.h"

namespace Engine {

class ContainerEscapeTaskPolicy : public Framework::TaskPolicy {
public:
    ContainerEscapeTaskPolicy();
    ~ContainerEscapeTaskPolicy() override;

    // Entries that are no system call's name, or no well-formed entry of an existing path (with the scope "container":
    // of any path), are skipped. A scope that is none counts as absent, with a warning. False when the text is no JSON
    // or one of the two lists is missing; a list that was read by then stays replaced.
    bool Parse(const std::string& text) override;

    const ContainerEscapeDetectPolicyContent& GetContent() const { return content; }

private:
    ContainerEscapeDetectPolicyContent content;
};

}  // namespace Engine
