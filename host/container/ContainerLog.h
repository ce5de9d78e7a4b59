// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "LogSite.h"

namespace Engine {

using ContainerLog = SDK::LogSite<SDK::NamedLogger<"container_module">>;  // ContainerLog::Warning("...", ...)

}  // namespace Engine
