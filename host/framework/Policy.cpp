// SPDX-License-Identifier: Apache-2.0
#include "framework/Policy.h"

#include <algorithm>

namespace Framework {

bool Policy::Parse(const std::string& /*text*/)
{
    return true;  // has nothing that a document could set
}

void CompositePolicy::Add(std::unique_ptr<Policy> child)
{
    children.push_back(std::move(child));
}

Policy* CompositePolicy::Find(const std::string& name) const
{
    const auto found = std::find_if(children.begin(), children.end(),
                                    [&name](const std::unique_ptr<Policy>& child) { return child->Name() == name; });
    return found == children.end() ? nullptr : found->get();
}

}  // namespace Framework
