// SPDX-License-Identifier: Apache-2.0
// The agent's counters: what was read, delivered and lost, by place. Shown in the closing line and in status lines.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

namespace SDK {

class Counters {
public:
    using Counter = std::atomic<std::uint64_t>;

    // The counter of that name, made at its first use, 0 then. The reference is good until the process ends, so look a
    // counter up once and keep it. Names are "place.what": see the list below. Any thread.
    static Counter& Get(const std::string& name);

    // All counters by name. Any thread.
    static std::map<std::string, std::uint64_t> Snapshot();
};

// Names in use. Events, unless said otherwise.
namespace CounterName {
inline constexpr char traceRead[] = "trace.read";                   // read from the kernel's buffers
inline constexpr char traceLostOverrun[] = "trace.lost_overrun";    // overwritten in the kernel's buffers
inline constexpr char traceLostDropped[] = "trace.lost_dropped";    // dropped by the kernel when it wrote
inline constexpr char traceLostLives[] = "trace.lost_lives";        // forks, execs, exits and moves: likewise, by BPF
inline constexpr char traceShedLives[] = "trace.shed_lives";        // the same, of a container that storms: no loss
inline constexpr char traceLostPages[] = "trace.lost_pages";        // reported missing in a page, number unknown: pages
inline constexpr char traceLostQueue[] = "trace.lost_queue";        // refused by a subscriber's queue
inline constexpr char traceShed[] = "trace.shed";                   // excluded: their container storms
inline constexpr char traceShedKernel[] = "trace.shed_kernel";      // the same, by the kernel: never read
inline constexpr char traceUnwanted[] = "trace.unwanted";           // for a subscriber that had stopped
inline constexpr char traceLate[] = "trace.late";                   // delivered out of time order
inline constexpr char traceNotContainer[] = "trace.not_container";  // system calls of host processes
inline constexpr char traceDelivered[] = "trace.delivered";         // handled by their subscribers
// System calls alone: every one that was read is delivered, of a host process, shed or refused, once the queues are
// empty.
inline constexpr char callsRead[] = "calls.read";
inline constexpr char callsDelivered[] = "calls.delivered";
inline constexpr char callsRefused[] = "calls.refused";               // among trace.lost_queue and trace.unwanted
inline constexpr char notifyRead[] = "notify.read";                   // file notifications read
inline constexpr char notifyOverflow[] = "notify.overflow";           // overflows of the kernel's queue, loss unknown
inline constexpr char notifyLostQueue[] = "notify.lost_queue";        // refused by a subscriber's queue
inline constexpr char notifyNotContainer[] = "notify.not_container";  // accesses by host processes
inline constexpr char queueLost[] = "queue.lost";                     // refused by any task's queue
inline constexpr char alarmsSent[] = "alarms.sent";                   // documents written to every sink that takes them
inline constexpr char alarmsLost[] = "alarms.lost";                   // documents that some sink lost
inline constexpr char alarmsOfClass[] = "alarms.sent.";               // the same, by the class that follows
inline constexpr char alarmsRefused[] = "alarms.refused";             // times that a sink took none; tried again
inline constexpr char alarmsDeferred[] = "alarms.deferred";           // kept back, and on standard error meanwhile
inline constexpr char alarmsExcepted[] = "alarms.excepted";           // that an operator's exception holds for
inline constexpr char exceptedPrefix[] = "report.excepted.";          // the same for each exception, by its name
inline constexpr char engineFailures[] = "engine.failures";           // calls that the container engine did not answer
inline constexpr char demoted[] = "sched.demoted";         // times a thread lost its real-time priority for a moment
inline constexpr char engineSkipped[] = "engine.skipped";  // events and answers of it that were too long
inline constexpr char logLost[] = "log.lost";              // log records that could not be written (whole or in part)
}  // namespace CounterName

}  // namespace SDK
