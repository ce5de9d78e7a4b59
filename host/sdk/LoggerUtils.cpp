// SPDX-License-Identifier: Apache-2.0
#include "sdk/LoggerUtils.h"

#include <Poco/Exception.h>
#include <unistd.h>

#include <map>
#include <mutex>

#include "host/sdk/LineChannel.h"

namespace SDK {

namespace {

struct ModuleLogger {
    Poco::Logger* logger;
    bool ownLevel;
};

// Holds a reference to each logger that was handed out: the logging library drops its own at exit, and whenever its
// application object shuts down, while tasks still keep the pointer.
class Registry {
public:
    Registry() : root(Hold(Poco::Logger::root()))
    {
        if (root->getChannel().isNull()) {
            root->setChannel(new LineChannel(STDERR_FILENO));
        }
    }

    Poco::Logger* Root() const { return root; }

    Poco::Logger* Module(const std::string& name, bool ownLevel)
    {
        const std::lock_guard lock(mutex);
        const auto known = modules.find(name);
        if (known != modules.end()) {
            known->second.ownLevel |= ownLevel;
            return known->second.logger;
        }
        Poco::Logger* logger = Hold(Poco::Logger::get(name));
        logger->setChannel(root->getChannel());
        logger->setLevel(root->getLevel());
        modules.emplace(name, ModuleLogger{logger, ownLevel});
        return logger;
    }

    void SetLevel(int level)
    {
        const std::lock_guard lock(mutex);
        root->setLevel(level);
        for (const auto& [name, module] : modules) {
            if (!module.ownLevel) {
                module.logger->setLevel(level);
            }
        }
    }

private:
    static Poco::Logger* Hold(Poco::Logger& logger)
    {
        logger.duplicate();
        return &logger;
    }

    Poco::Logger* root;
    std::mutex mutex;
    std::map<std::string, ModuleLogger> modules;
};

Registry& Loggers()
{
    static auto* const registry = new Registry;  // never destroyed: threads may log while the process exits
    return *registry;
}

}  // namespace

LoggerUtils* LoggerUtils::GetInstance()
{
    static LoggerUtils instance;
    return &instance;
}

Poco::Logger* LoggerUtils::GetModuleLogger(const std::string& name, bool ownLevel)
{
    return name.empty() ? GetRootLogger() : Loggers().Module(name, ownLevel);
}

Poco::Logger* LoggerUtils::GetRootLogger()
{
    return Loggers().Root();
}

bool LoggerUtils::SetLevel(const std::string& level)
{
    try {
        Loggers().SetLevel(Poco::Logger::parseLevel(level));
        return true;
    } catch (const Poco::InvalidArgumentException&) {
        return false;
    }
}

}  // namespace SDK
