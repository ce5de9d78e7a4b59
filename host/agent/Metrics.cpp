// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Metrics.h"

#include <prometheus/text_serializer.h>

#include <array>
#include <sstream>
#include <utility>

#include "host/sdk/AlarmLatency.h"
#include "host/sdk/Counters.h"

namespace Agent {

namespace {

namespace Name = SDK::CounterName;
using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

constexpr double microsecondsInSecond = 1e6;

// A metric that is made of counters: of one, or of all whose names begin so.
struct Row {
    const char* counter;
    bool isPrefix;  // what follows in the name is the label's value
    const char* label;
    const char* value;
};
struct Metric {
    const char* name;
    const char* help;
    std::vector<Row> rows;
};

const std::vector<Metric>& Table()
{
    static const std::vector<Metric> table{
        {"containerescape_events_read_total",
         "Trace events read from the kernel (calls, forks, execs, exits, moves) and file notifications",
         {{Name::traceRead, false, "kind", "trace"}, {Name::notifyRead, false, "kind", "file"}}},
        {"containerescape_calls_read_total",
         "System calls among the trace events",
         {{Name::callsRead, false, nullptr, nullptr}}},
        {"containerescape_events_delivered_total",
         "Trace events handled by their subscribers, once for each",
         {{Name::traceDelivered, false, nullptr, nullptr}}},
        {"containerescape_events_of_host_total",
         "System calls and file accesses of processes in no container",
         {{Name::traceNotContainer, false, "kind", "trace"}, {Name::notifyNotContainer, false, "kind", "file"}}},
        {"containerescape_lost_total",
         "Events that were lost, by the place; of kernel_pages and file_overflow times, the events are unknown",
         {{Name::traceLostOverrun, false, "place", "kernel_overrun"},
          {Name::traceLostDropped, false, "place", "kernel_dropped"},
          {Name::traceLostLives, false, "place", "kernel_lives"},
          {Name::traceLostPages, false, "place", "kernel_pages"},
          {Name::queueLost, false, "place", "task_queue"},
          {Name::notifyOverflow, false, "place", "file_overflow"}}},
        {"containerescape_shed_total",
         "Events excluded because their thread or container storms, by the place",
         {{Name::traceShedKernel, false, "place", "kernel_calls"},
          {Name::traceShedLives, false, "place", "kernel_lives"},
          {Name::traceShed, false, "place", "queue"}}},
        {"containerescape_alarms_written_total",
         "Alarms that every sink wrote",
         {{Name::alarmsSent, false, nullptr, nullptr}}},
        {"containerescape_alarms_sent_total",
         "Alarms that every sink wrote, by their class",
         {{Name::alarmsOfClass, true, "class", nullptr}}},
        {"containerescape_alarms_lost_total",
         "Alarms that some sink lost",
         {{Name::alarmsLost, false, nullptr, nullptr}}},
        {"containerescape_alarms_lost_by_sink_total",
         "Alarms that a sink lost",
         {{"alarms.lost_", true, "sink", nullptr}}},
        {"containerescape_alarms_refused_total",
         "Times that a sink took no alarm, each of which is tried again",
         {{Name::alarmsRefused, false, nullptr, nullptr}}},
        {"containerescape_alarms_deferred_total",
         "Alarms kept back, for a sink or for the name of their container",
         {{Name::alarmsDeferred, false, nullptr, nullptr}}},
        {"containerescape_alarms_excepted_total",
         "Alarms that an exception of the operator keeps from being sent, by the exception",
         {{"report.excepted.", true, "rule", nullptr}}},
        {"containerescape_engine_failures_total",
         "Calls that the container engine did not answer",
         {{Name::engineFailures, false, nullptr, nullptr}}},
        {"containerescape_demoted_total",
         "Times that a thread lost its real-time priority for a moment",
         {{Name::demoted, false, nullptr, nullptr}}},
        {"containerescape_log_lost_total",
         "Log records that could not be written",
         {{Name::logLost, false, nullptr, nullptr}}},
    };
    return table;
}

class Text {
public:
    // `family`: the one that is added to from now on. It is there without any series, too.
    void Begin(const char* name, const char* help, MetricType type) { families.push_back({name, help, type, {}}); }

    void Add(double value, const char* label = nullptr, const std::string& labelled = {})
    {
        MetricFamily& family = families.back();
        ClientMetric metric;
        if (label != nullptr) {
            metric.label.push_back({label, labelled});
        }
        (family.type == MetricType::Counter ? metric.counter.value : metric.gauge.value) = value;
        family.metric.push_back(std::move(metric));
    }

    // One series for each of the label's values, the rest together.
    template <class Counts>
    void AddEach(const Counts& counts, const char* label)
    {
        std::size_t series = 0;
        double other = 0;
        for (const auto& [value, count] : counts) {
            if (series++ < maxSeries) {
                Add(static_cast<double>(count), label, value);
            } else {
                other += static_cast<double>(count);
            }
        }
        if (series > maxSeries) {
            Add(other, label, "other");
        }
    }

    void AddGauge(const char* name, const char* help, double value, const char* label = nullptr,
                  const std::string& labelled = {})
    {
        Begin(name, help, MetricType::Gauge);
        Add(value, label, labelled);
    }

    void Add(MetricFamily family) { families.push_back(std::move(family)); }

    std::string Serialized() const
    {
        std::ostringstream out;
        prometheus::TextSerializer{}.Serialize(out, families);
        return out.str();
    }

private:
    std::vector<MetricFamily> families;
};

std::uint64_t ValueOf(const CounterValues& counters, const std::string& name)
{
    const auto found = counters.find(name);
    return found == counters.end() ? 0 : found->second;
}

// Takes the counters out whose names begin so, by the rest of their names.
CounterValues Take(CounterValues& counters, const std::string& prefix)
{
    CounterValues taken;
    for (auto next = counters.lower_bound(prefix); next != counters.end() && next->first.starts_with(prefix);) {
        taken[next->first.substr(prefix.size())] = next->second;
        next = counters.erase(next);
    }
    return taken;
}

// What is in no row has a metric of its own, so that nothing is counted unseen.
void AddCounters(CounterValues counters, Text& text)
{
    for (const Metric& metric : Table()) {
        text.Begin(metric.name, metric.help, MetricType::Counter);
        for (const Row& row : metric.rows) {
            if (row.isPrefix) {
                text.AddEach(Take(counters, row.counter), row.label);
            } else {
                text.Add(static_cast<double>(ValueOf(counters, row.counter)), row.label,
                         row.value == nullptr ? "" : row.value);
                counters.erase(row.counter);
            }
        }
    }
    Take(counters, SDK::AlarmLatency::counterPrefix);
    text.Begin("containerescape_other_total", "The agent's other counters, by their names in the statistics file",
               MetricType::Counter);
    text.AddEach(counters, "counter");
}

void AddLatency(const CounterValues& counters, Text& text)
{
    namespace Latency = SDK::AlarmLatency;
    ClientMetric metric;
    std::uint64_t count = 0;
    for (std::size_t i = 0; i < Latency::bounds.size(); ++i) {
        count += ValueOf(counters, Latency::CounterOf(i));
        metric.histogram.bucket.push_back({count, Latency::bounds.at(i) / microsecondsInSecond});
    }
    metric.histogram.sample_count = count + ValueOf(counters, Latency::CounterOf(Latency::bounds.size()));
    metric.histogram.sample_sum = static_cast<double>(ValueOf(counters, Latency::sumCounter)) / microsecondsInSecond;
    text.Add({"containerescape_alarm_latency_seconds",
              "From the call, or from when a file notification was read, to the alarm's line",
              MetricType::Histogram,
              {metric}});
}

double UnixTime(AgentState::Seconds time)
{
    return static_cast<double>(time.time_since_epoch().count());
}

// The entries of the policy: those that are listed, or those that are watched.
void AddEntries(const char* name, const char* help, std::size_t calls, std::size_t directories, Text& text)
{
    text.AddGauge(name, help, static_cast<double>(calls), "kind", "calls");
    text.Add(static_cast<double>(directories), "kind", "directories");
}

void AddState(const AgentState& state, Text& text)
{
    const Readiness& readiness = state.readiness;
    text.AddGauge("containerescape_healthy", "1, or 0 where /healthz says why not", state.causes.empty() ? 1 : 0);
    text.AddGauge("containerescape_build_info", "The agent's version", 1, "version", CE_VERSION);
    text.AddGauge("containerescape_start_time_seconds", "When the agent started", UnixTime(state.started));
    text.AddGauge("containerescape_policy_info", "The SHA-256 of the policy in force", 1, "sha256", state.policySha256);
    text.AddGauge("containerescape_policy_time_seconds", "When the policy took effect", UnixTime(state.policyLoaded));
    AddEntries("containerescape_listed", "Entries of the policy", readiness.listedCalls, readiness.listedDirectories,
               text);
    AddEntries("containerescape_watched", "Entries of the policy that are watched", readiness.coverage.calls,
               readiness.coverage.directories, text);
    text.AddGauge("containerescape_containers", "Containers that have a process",
                  static_cast<double>(readiness.containers));
    text.Begin("containerescape_engine_up", "Whether each container engine answers that is named or found",
               MetricType::Gauge);
    text.AddEach(state.engines, "engine");
    text.AddGauge("containerescape_registry_threads", "Threads in the registry of containers",
                  static_cast<double>(state.registry.threads));
    text.AddGauge("containerescape_registry_containers", "Containers whose names are known",
                  static_cast<double>(state.registry.containers));
    text.Begin("containerescape_queued_messages", "Messages that wait in a task's queue", MetricType::Gauge);
    text.AddEach(state.queued, "task");
    text.Begin("containerescape_alarms_merged_total", "Alarms merged into an earlier one, by their class",
               MetricType::Counter);
    text.AddEach(state.merged, "class");
    text.Begin("containerescape_shed_by_container_total",
               "Events excluded in storms, by the container that most events were of at that time",
               MetricType::Counter);
    text.AddEach(state.shedBy, "container");
}

}  // namespace

std::string MetricsText(const AgentState& state, const CounterValues& counters)
{
    Text text;
    AddState(state, text);
    AddCounters(counters, text);
    AddLatency(counters, text);
    return text.Serialized();
}

}  // namespace Agent
