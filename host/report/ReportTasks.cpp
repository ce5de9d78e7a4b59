// SPDX-License-Identifier: Apache-2.0
#include "host/report/ReportTasks.h"

#include <utility>

#include "host/report/AlarmDocument.h"
#include "host/report/ReportLog.h"
#include "host/sdk/SystemView.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

using Framework::TaskCondition;

constexpr unsigned int queueCapacity = 4096;
constexpr char alarmType[] = "2";
constexpr std::chrono::milliseconds drainBound{500};
constexpr std::size_t maxLoggedBytes = 1024;
constexpr int nameWaitMs = 20;
constexpr int mostEventsAtOnce = 16;

}  // namespace

DataReportTask::DataReportTask(std::vector<std::unique_ptr<AlarmSink>> sinksToServe, AlarmFormat alarmFormat,
                               FindPolicy findPolicy, bool showExcepted)
    : Framework::Task("data_comm_report_task", "", TaskCondition::EventLoop, queueCapacity),
      findPolicy(std::move(findPolicy)),
      showExcepted(showExcepted),
      format(std::move(alarmFormat))
{
    for (std::unique_ptr<AlarmSink>& sink : sinksToServe) {
        sinks.push_back(std::make_unique<SinkQueue>(std::move(sink)));
    }
}

int DataReportTask::EnqueueMsg(std::shared_ptr<Framework::Message>& message)
{
    const auto* data = dynamic_cast<const Framework::DataMessage*>(message.get());
    return data != nullptr && data->Type() == alarmType ? Take(*data) : Framework::Task::EnqueueMsg(message);
}

int DataReportTask::HandleMsg(const Framework::Message* message)
{
    const auto* data = dynamic_cast<const Framework::DataMessage*>(message);
    if (data == nullptr) {
        return -1;
    }
    if (data->Type() == alarmType) {
        return Take(*data);
    }
    ReportLog::Notice("report of type %s, %z bytes, has no receiver", data->Type(), data->Content().size());
    return 0;
}

int DataReportTask::Take(const Framework::DataMessage& message)
{
    auto alarm = Alarm::Parse(message.Content());
    if (!alarm) {
        AlarmDocument::CountLost();
        ReportLog::Error("alarm of %z bytes is not a JSON object, dropped", message.Content().size());
        return -1;
    }
    const bool wantsContext = format.WantsContext() || exceptions.AreThere();
    alarm->context = wantsContext ? AlarmContext::Take(*alarm, SDK::SystemView::Current()) : AlarmContext::OfEvent();
    const auto excepted = Except(*alarm);
    const int result = !excepted || showExcepted ? Deliver(std::move(*alarm)) : 0;
    return excepted && excepted->mustBeRefused ? -1 : result;
}

std::optional<Exceptions::Match> DataReportTask::Except(Alarm& alarm) const
{
    auto found = exceptions.Find(alarm, *alarm.context, SDK::SystemView::Current());
    if (found) {
        Exceptions::Count(*found);
        alarm.exception = found->name;
    }
    return found;
}

int DataReportTask::Deliver(Alarm alarm)
{
    const SDK::ContainerNames::InForce names;
    const std::lock_guard lock(mutex);
    if (sinks.empty()) {
        AlarmDocument::CountLost();
        return -1;
    }
    if (unnamed.Pass(alarm, names.Get(), NameWait::Clock::now())) {
        Report(alarm, names.Get());
    } else {
        Waiter().Wake();
    }
    return 0;
}

int DataReportTask::Init()
{
    constexpr char example[] = R"({"event_name":"\u00e9","process_info":[{"process_pid":1}],"occur_time":1})";
    const std::lock_guard lock(mutex);
    if (const auto alarm = Alarm::Parse(SDK::JsonUtils::JsonToString(Alarm::Parse(example).value().document))) {
        AlarmDocument::Make(*alarm, 1, [&](const std::string& text, const Json::Value& document) {
            return format.Format(text, document, nullptr, nullptr, "");
        });
    }
    return Framework::Task::Init();
}

int DataReportTask::Run()
{
    std::unique_lock lock(mutex);
    if (unnamed.IsEmpty()) {
        lock.unlock();
        return Framework::Task::Run();
    }
    lock.unlock();
    Waiter().WaitAndHandleEvent(nameWaitMs, mostEventsAtOnce);
    BulkConsumeMsg(static_cast<int>(queueCapacity));
    const SDK::ContainerNames::InForce names;
    lock.lock();
    Release(names.Get());
    return 0;
}

void DataReportTask::Release(const SDK::ContainerNames* names)
{
    unnamed.Release(names, NameWait::Clock::now(), [this, names](Alarm& alarm) {
        const bool isExcepted = !alarm.exception.empty() || Except(alarm);
        if (!isExcepted || showExcepted) {
            Report(alarm, names);
        }
    });
}

void DataReportTask::Report(const Alarm& alarm, const SDK::ContainerNames* names)
{
    const std::shared_ptr<AlarmDocument> document =
        AlarmDocument::Make(alarm, sinks.size(), [&](const std::string& text, const Json::Value& parsed) {
            return format.Format(text, parsed, alarm.context.get(), names, findPolicy ? findPolicy() : std::string{},
                                 alarm.exception);
        });
    document->SetEvent(alarm.context->event);
    for (const std::unique_ptr<SinkQueue>& sink : sinks) {
        sink->Push(document);
    }
}

int DataReportTask::UnInit()
{
    while (BulkConsumeMsg(queueCapacity) > 0) {
    }
    std::unique_lock lock(mutex);
    Release(nullptr);
    const auto ending = std::exchange(sinks, {});
    lock.unlock();
    for (const std::unique_ptr<SinkQueue>& sink : ending) {
        sink->End(drainBound);
    }
    return 0;  // when the threads of all have ended
}

CmdReportTask::CmdReportTask() : Framework::Task("cmd_comm_report_task", "", TaskCondition::EventLoop, queueCapacity)
{
}

int CmdReportTask::HandleMsg(const Framework::Message* message)
{
    const auto* command = dynamic_cast<const Framework::CmdMessage*>(message);
    if (command == nullptr) {
        return -1;
    }
    // Foreign bytes in both texts: the channel of the log escapes them.
    ReportLog::Notice("command %s: %s", command->Id().substr(0, maxLoggedBytes),
                      command->Content().substr(0, maxLoggedBytes));
    return 0;
}

}  // namespace Engine
