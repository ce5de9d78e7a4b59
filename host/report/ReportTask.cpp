// SPDX-License-Identifier: Apache-2.0
#include "host/report/ReportTask.h"

namespace Engine {

namespace {

constexpr unsigned int queueCapacity = 4096;
constexpr int batch = 1024;    // messages handled between two looks at the stop flag
constexpr int waitMs = 1000;   // a message or the stop wakes the task earlier
constexpr int waitBatch = 16;  // descriptor events; the task watches none of its own

}  // namespace

ReportTask::ReportTask(const std::string& taskName)
    : Framework::Task(taskName, "", Framework::TaskCondition::EventLoop, queueCapacity)
{
}

int ReportTask::Run()
{
    Waiter().WaitAndHandleEvent(waitMs, waitBatch);
    BulkConsumeMsg(batch);
    return 0;
}

int ReportTask::UnInit()
{
    while (BulkConsumeMsg(batch) > 0) {
    }
    return Framework::Task::UnInit();
}

}  // namespace Engine
