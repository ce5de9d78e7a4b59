// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Poco/Logger.h>

namespace Engine {

// The logger of this component. Any thread.
Poco::Logger& ReportLog();

}  // namespace Engine
