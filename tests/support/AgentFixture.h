// SPDX-License-Identifier: Apache-2.0
// The real framework with the host's tasks replaced by collecting ones, and a system of the test's own making.
#pragma once

#include <gmock/gmock.h>
#include <json/value.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "framework/Engine.h"
#include "sdk/JsonUtils.h"
#include "tests/support/CollectingTasks.h"
#include "tests/support/FakeSystem.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TraceEventBuilder.h"

namespace Support {

class AgentFixture : public testing::Test {
protected:
    // The agent's threads end before anything that they use.
    void TearDown() override { agent.Stop(); }

    template <class T>
    T* AddTask(std::unique_ptr<T> task)
    {
        T* added = task.get();
        EXPECT_TRUE(agent.AddModule(std::make_unique<HostModule<T>>(std::move(task))));
        return added;
    }

    // All of the host's tasks. A test that wants some of them missing adds the others by itself.
    void AddHostTasks()
    {
        collector = AddTask(std::make_unique<CollectorTask>());
        trace = AddTask(std::make_unique<TraceTask>());
        files = AddTask(std::make_unique<FileNotifyTask>());
        audit = AddTask(std::make_unique<AuditTask>());
        data = AddTask(std::make_unique<ReportTask<Framework::DataMessage>>("data_comm_report_task"));
    }

    // Waits until the task has handled everything that this thread sent it.
    void Settle(Framework::Task& task)
    {
        struct Nothing : Framework::Message {
            int MessageHandle(void*) override { return 0; }
        };
        std::string reply;
        ASSERT_EQ(task.SyncSendDirectMsg(task.name(), new Nothing, reply, 60'000, 2), 0) << task.name();
    }

    // What the task got from this thread since the last call.
    template <class T>
    std::vector<T> Taken(Framework::Task& task, Inbox<T>& inbox)
    {
        Settle(task);
        return inbox.Take();
    }

    // The alarm documents that went out since the last call.
    std::vector<Json::Value> Alarms()
    {
        std::vector<Json::Value> documents;
        for (const Framework::DataMessage& report : Taken(*data, data->reports)) {
            EXPECT_EQ(report.Type(), "2");
            Json::Value& document = documents.emplace_back();
            EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(report.Content().data(), report.Content().size(), document), 0);
        }
        return documents;
    }

    // "system:event" of the subscriptions since the last call, withdrawals with a leading minus.
    std::vector<std::string> TraceWatches()
    {
        std::vector<std::string> watches;
        for (const Engine::FtraceWatchMessage& watch : Taken(*trace, trace->watches)) {
            watches.push_back((watch.unwatch ? "-" : "") + watch.system + ":" + watch.event);
        }
        return watches;
    }

    FakeSystem world;
    Framework::Engine agent;
    LogCapture logs;                     // after the agent: an application begins by replacing every logger's channel
    CollectorTask* collector = nullptr;  // these are the framework's
    TraceTask* trace = nullptr;
    FileNotifyTask* files = nullptr;
    AuditTask* audit = nullptr;
    ReportTask<Framework::DataMessage>* data = nullptr;
};

}  // namespace Support
