// SPDX-License-Identifier: Apache-2.0
#include "host/report/ReportTasks.h"

#include "host/report/AlarmDocument.h"
#include "host/report/ReportLog.h"
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

bool IsAlarm(const Framework::Message* message)
{
    const auto* data = dynamic_cast<const Framework::DataMessage*>(message);
    return data != nullptr && data->Type() == alarmType;
}

}  // namespace

DataReportTask::DataReportTask(std::vector<std::unique_ptr<AlarmSink>> sinksToServe, FindNames findNames,
                               AlarmFormat alarmFormat, FindPolicy findPolicy, bool showExcepted)
    : Framework::Task("data_comm_report_task", "", TaskCondition::EventLoop, queueCapacity),
      findNames(std::move(findNames)),
      findPolicy(std::move(findPolicy)),
      format(std::move(alarmFormat)),
      showExcepted(showExcepted)
{
    for (std::unique_ptr<AlarmSink>& sink : sinksToServe) {
        sinks.push_back(std::make_unique<SinkQueue>(std::move(sink)));
    }
}

int DataReportTask::EnqueueMsg(std::shared_ptr<Framework::Message>& message)
{
    const bool isAlarm = IsAlarm(message.get());
    std::optional<Exceptions::Match> excepted;
    if (isAlarm) {
        const auto& alarm = dynamic_cast<const Framework::DataMessage&>(*message);
        SDK::SystemView& system = SDK::SystemView::Current();
        const auto context = format.WantsContext() || exceptions.AreThere()
                                 ? AlarmContext::Take(alarm.Content(), system)
                                 : AlarmContext::OfEvent();
        excepted = exceptions.Find(alarm.Content(), *context, system);
        message = std::make_shared<AlarmReport>(alarm, context, excepted ? excepted->name : std::string{});
    }
    if (excepted) {
        Exceptions::Count(*excepted);
    }
    const int result = excepted && !showExcepted ? 0 : Framework::Task::EnqueueMsg(message);
    if (result != 0 && isAlarm) {
        AlarmDocument::CountLost();
    }
    return excepted && excepted->mustBeRefused ? -1 : result;
}

int DataReportTask::Init()
{
    constexpr char example[] = R"({"event_name":"\u00e9","process_info":[{"process_pid":1}],"occur_time":1})";
    if (const auto alarm = Alarm::Parse(SDK::JsonUtils::JsonToString(Alarm::Parse(example).value().document))) {
        AlarmDocument::Make(*alarm, 1, [&](const std::string& text, const Json::Value& document) {
            return format.Format(text, document, nullptr, Names(), "");
        });
    }
    return Framework::Task::Init();
}

int DataReportTask::HandleMsg(const Framework::Message* message)
{
    const auto* data = dynamic_cast<const Framework::DataMessage*>(message);
    if (data == nullptr) {
        return -1;
    }
    if (IsAlarm(data)) {
        const auto* report = dynamic_cast<const AlarmReport*>(data);
        const auto context = report != nullptr ? report->Context() : nullptr;
        auto alarm = Alarm::Parse(data->Content());
        if (!alarm) {
            AlarmDocument::CountLost();
            ReportLog::Error("alarm of %z bytes is not a JSON object, dropped", data->Content().size());
            return -1;
        }
        if (unnamed.Pass(*alarm, Names(), NameWait::Clock::now(), context)) {
            Report(*alarm, context.get(), report != nullptr ? report->Exception() : "");
        }
        return 0;
    }
    ReportLog::Notice("report of type %s, %z bytes, has no receiver", data->Type(), data->Content().size());
    return 0;
}

int DataReportTask::Run()
{
    if (unnamed.IsEmpty()) {
        return Framework::Task::Run();
    }
    Waiter().WaitAndHandleEvent(nameWaitMs, mostEventsAtOnce);
    BulkConsumeMsg(static_cast<int>(queueCapacity));
    unnamed.Release(Names(), NameWait::Clock::now(),
                    [this](const Alarm& alarm, const auto& context) { ReportNamed(alarm, context.get()); });
    return 0;
}

void DataReportTask::ReportNamed(const Alarm& alarm, const AlarmContext* context)
{
    const auto excepted = context != nullptr ? exceptions.Find(alarm.text, *context, SDK::SystemView::Current())
                                             : std::optional<Exceptions::Match>{};
    if (excepted) {
        Exceptions::Count(*excepted);
    }
    if (!excepted || showExcepted) {
        Report(alarm, context, excepted ? excepted->name : std::string{});
    }
}

void DataReportTask::Report(const Alarm& alarm, const AlarmContext* context, const std::string& exception)
{
    const std::shared_ptr<AlarmDocument> document =
        AlarmDocument::Make(alarm, sinks.size(), [&](const std::string& text, const Json::Value& document) {
            return format.Format(text, document, context, Names(), findPolicy ? findPolicy() : std::string{},
                                 exception);
        });
    document->SetEvent(context != nullptr ? context->event : std::nullopt);
    for (const std::unique_ptr<SinkQueue>& sink : sinks) {
        sink->Push(document);
    }
}

int DataReportTask::UnInit()
{
    while (BulkConsumeMsg(queueCapacity) > 0) {
    }
    unnamed.Release(nullptr, NameWait::Clock::now(),
                    [this](const Alarm& alarm, const auto& context) { ReportNamed(alarm, context.get()); });
    for (const std::unique_ptr<SinkQueue>& sink : sinks) {
        sink->End(drainBound);
    }
    sinks.clear();  // waits for their threads
    return 0;
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
