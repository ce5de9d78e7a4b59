// SPDX-License-Identifier: Apache-2.0
#include "host/report/ReportTask.h"

namespace Engine {

namespace {

constexpr unsigned int queueCapacity = 4096;
constexpr int batch = 1024;

}  // namespace

ReportTask::ReportTask(const std::string& taskName)
    : Framework::Task(taskName, "", Framework::TaskCondition::EventLoop, queueCapacity)
{
}

int ReportTask::UnInit()
{
    while (BulkConsumeMsg(batch) > 0) {
    }
    return Framework::Task::UnInit();
}

}  // namespace Engine
