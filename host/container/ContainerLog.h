// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "LogSite.h"
#include "messages/ContainerMessages.h"

namespace Engine {

struct ContainerLogger {
    static Poco::Logger* Logger() { return DockerUtil::GetLoggerPtr(); }
};

// The log sites of this folder: ContainerLog::Warning("...", ...).
using ContainerLog = SDK::LogSite<ContainerLogger>;

}  // namespace Engine
