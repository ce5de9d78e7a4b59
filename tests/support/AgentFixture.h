// SPDX-License-Identifier: Apache-2.0
// A fake system and a fake host for one test. Every log site that the test passes is formatted, down to trace.
#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <gmock/gmock.h>
#include <json/value.h>

#include <string>
#include <utility>
#include <vector>

#include "sdk/JsonUtils.h"
#include "sdk/LoggerUtils.h"
#include "tests/support/FakeHost.h"
#include "tests/support/FakeSystem.h"
#include "tests/support/TraceEventBuilder.h"

namespace Support {

// Poco::format writes [ERRFMT] for an argument that does not fit its place.
struct FormatChecker : Poco::Channel {
    void log(const Poco::Message& message) override
    {
        EXPECT_EQ(message.getText().find("[ERRFMT]"), std::string::npos) << message.getText();
    }
};

class AgentFixture : public testing::Test {
protected:
    AgentFixture()
    {
        auto* loggers = SDK::LoggerUtils::GetInstance();
        const Poco::AutoPtr<Poco::Channel> checker(new FormatChecker);
        loggers->GetRootLogger()->setChannel(checker);
        loggers->GetModuleLogger("containerescape_module", false)->setChannel(checker);
        loggers->SetLevel("trace");
    }

    static Json::Value Parsed(const std::string& text)
    {
        Json::Value value;
        EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), value), 0) << text;
        return value;
    }

    // The alarm documents that went out since the last call.
    std::vector<Json::Value> Alarms()
    {
        std::vector<Json::Value> documents;
        for (const std::string& report : std::exchange(host.reports, {})) {
            constexpr std::string_view alarm = "data_comm_report_task 2 ";
            EXPECT_TRUE(report.starts_with(alarm)) << report;
            documents.push_back(Parsed(report.substr(alarm.size())));
        }
        return documents;
    }

    FakeSystem world;
    FakeHost host;
};

}  // namespace Support
