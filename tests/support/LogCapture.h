// SPDX-License-Identifier: Apache-2.0
// Keeps what the agent's loggers write while it lives, at every level unless told otherwise. Constructed before the
// threads that log, destroyed after them.
#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <mutex>
#include <string>
#include <vector>

#include "sdk/LoggerUtils.h"

namespace Support {

struct LogRecord {
    std::string logger;
    Poco::Message::Priority priority;
    std::string text;
    std::string file;
    int line;

    bool operator==(const LogRecord&) const = default;
};

inline void PrintTo(const LogRecord& record, std::ostream* out)
{
    *out << '[' << record.logger << "] " << record.priority << ' ' << record.file << ':' << record.line << " \""
         << record.text << '"';
}

class LogCapture {
public:
    explicit LogCapture(int level = Poco::Message::PRIO_TRACE)
        : root(SDK::LoggerUtils::GetInstance()->GetRootLogger()),
          module(SDK::LoggerUtils::GetInstance()->GetModuleLogger("containerescape_module", false)),
          levelBefore(root->getLevel()),
          channelBefore(root->getChannel(), true)
    {
        Install(channel, level);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture() { Install(channelBefore, levelBefore); }

    // While no other thread logs.
    void SetLevel(int level)
    {
        root->setLevel(level);
        module->setLevel(level);
    }
    void Clear() { channel->Take(); }

    // Those of one source file, or with a text.
    std::vector<LogRecord> From(const std::string& file) const
    {
        return Only([&](const LogRecord& record) { return record.file == file; });
    }
    std::vector<LogRecord> With(const std::string& text) const
    {
        return Only([&](const LogRecord& record) { return record.text == text; });
    }
    std::vector<std::string> Texts(Poco::Message::Priority priority) const
    {
        std::vector<std::string> texts;
        for (const LogRecord& record : Only([&](const LogRecord& any) { return any.priority == priority; })) {
            texts.push_back(record.text);
        }
        return texts;
    }

    const std::string& RootName() const { return root->name(); }
    const std::string& ModuleName() const { return module->name(); }

private:
    class Channel : public Poco::Channel {
    public:
        void log(const Poco::Message& message) override
        {
            const std::lock_guard lock(mutex);
            records.push_back({message.getSource(), message.getPriority(), message.getText(),
                               message.getSourceFile() == nullptr ? "" : message.getSourceFile(),
                               message.getSourceLine()});
        }
        std::vector<LogRecord> Copy() const
        {
            const std::lock_guard lock(mutex);
            return records;
        }
        std::vector<LogRecord> Take()
        {
            const std::lock_guard lock(mutex);
            return std::exchange(records, {});
        }

    private:
        mutable std::mutex mutex;
        std::vector<LogRecord> records;
    };

    template <class Match>
    std::vector<LogRecord> Only(const Match& match) const
    {
        std::vector<LogRecord> found;
        for (LogRecord& record : channel->Copy()) {
            if (match(record)) {
                found.push_back(std::move(record));
            }
        }
        return found;
    }

    template <class AnyChannel>
    void Install(AnyChannel& next, int level)
    {
        root->setChannel(next);
        module->setChannel(next);
        SetLevel(level);
    }

    Poco::Logger* root;
    Poco::Logger* module;
    int levelBefore;
    Poco::AutoPtr<Poco::Channel> channelBefore;
    Poco::AutoPtr<Channel> channel{new Channel};
};

}  // namespace Support
