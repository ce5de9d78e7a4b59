// SPDX-License-Identifier: Apache-2.0
#include "sdk/NamespaceUtils.h"

#include "host/sdk/SystemView.h"

namespace SDK {

int NamespaceUtils::GetProcessNamespace(int pid, std::map<std::string, std::string>& namespaces)
{
    return SystemView::Current().Namespaces(pid, namespaces);
}

}  // namespace SDK
