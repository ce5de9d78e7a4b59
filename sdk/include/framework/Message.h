// SPDX-License-Identifier: Apache-2.0
// What tasks send each other.
//
// Ownership: the sender makes a message with new. It belongs to the framework from the moment at which it is passed to
//            one of Task's send operations, also when that operation fails; the framework deletes it.
// Thread:    filled by the sender, then read by the receiving task's thread only; no lock inside.
#pragma once

#include <string>

namespace Framework {

class Message {
public:
    Message() = default;
    Message(const Message&) = default;
    Message& operator=(const Message&) = default;
    virtual ~Message() = default;

    // Delivers the message. `target`: the receiving task, as a pointer to Framework::Task and to no other base; null is
    // refused. Thread: that of the receiving task, inside its BulkConsumeMsg. Returns the receiver's result, -1 if it
    // takes no such message. This default hands the message to Task::HandleMsg. Messages with a receiver interface of
    // their own derive from Engine::AbstractMessage<T>, which overrides it.
    virtual int MessageHandle(void* target);

    // How many events the message carries: 1, but more for a batch of trace events. What a full queue loses is counted
    // in events.
    virtual unsigned long EventCount() const { return 1; }
};

// A command for the agent's management side, for "cmd_comm_report_task". Reaches its receiver through Task::HandleMsg.
class CmdMessage : public Message {
public:
    // `id`: the command's name, for example "feature_exception_1". `content`: passed on unread.
    CmdMessage(const std::string& id, const std::string& content) : id(id), content(content) {}

    const std::string& Id() const { return id; }
    const std::string& Content() const { return content; }

private:
    std::string id;
    std::string content;
};

// A report for "data_comm_report_task". Reaches its receiver through Task::HandleMsg.
class DataMessage : public Message {
public:
    // `type`: "2" for an alarm, whose `content` is then a JSON object on one line. Other types are passed on unread.
    DataMessage(const std::string& type, const std::string& content) : type(type), content(content) {}

    const std::string& Type() const { return type; }
    const std::string& Content() const { return content; }

private:
    std::string type;
    std::string content;
};

}  // namespace Framework
