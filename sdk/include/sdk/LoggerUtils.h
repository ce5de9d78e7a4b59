// SPDX-License-Identifier: Apache-2.0
// The agent's loggers. All of them write to one channel, the standard error by default, one line a record; control
// characters in a text are escaped there, so no text can forge a line or reach the terminal.
#pragma once

#include <Poco/Logger.h>

#include <string>

namespace SDK {

class LoggerUtils {
public:
    // Never null. The object lives until the process ends.
    static LoggerUtils* GetInstance();

    // The logger of one module, made at its first use with the root logger's level. `ownLevel` true keeps its level
    // apart from later changes of the root logger. Never null; owned by the logging library, valid until the process
    // ends.
    Poco::Logger* GetModuleLogger(const std::string& name, bool ownLevel);

    // Never null; valid until the process ends.
    Poco::Logger* GetRootLogger();

    // Sets the level of the root logger and of every module logger without one of its own. Names as the command line
    // takes them: none, fatal, critical, error, warning, notice, information, debug, trace. False: not such a name.
    bool SetLevel(const std::string& level);
};

}  // namespace SDK
