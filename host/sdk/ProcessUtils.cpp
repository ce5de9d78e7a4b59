// SPDX-License-Identifier: Apache-2.0
#include "sdk/ProcessUtils.h"

#include "host/sdk/SystemView.h"

namespace SDK {

int ProcessUtils::GetContainerID(int pid, std::string& id)
{
    return SystemView::Current().ContainerOf(pid, id);
}

int ProcessUtils::GetProcessExePath(unsigned int pid, std::string& path)
{
    return SystemView::Current().ExecutablePath(pid, path);
}

int ProcessUtils::GetProcessStatusInfo(int pid, procStatus& status)
{
    return SystemView::Current().Status(pid, status);
}

}  // namespace SDK
