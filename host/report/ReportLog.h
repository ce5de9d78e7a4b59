// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "LogSite.h"

namespace Engine {

using ReportLog = SDK::LogSite<SDK::NamedLogger<"report_module">>;  // ReportLog::Warning("...", ...)

}  // namespace Engine
