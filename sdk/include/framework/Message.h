// SPDX-License-Identifier: Apache-2.0
// What tasks send each other. A message is made on the heap by its sender and belongs to the framework from the moment
// it is passed to one of Task's send operations, whether that operation succeeds or not.
#pragma once

#include <string>

namespace Framework {

class Message {
public:
    Message() = default;
    Message(const Message&) = default;
    Message& operator=(const Message&) = default;
    virtual ~Message() = default;

    // Delivers the message. `target` is the receiving Framework::Task, passed as `static_cast<Framework::Task*>`.
    // Thread: the receiving task's own, inside its BulkConsumeMsg. Returns the receiver's result, -1 if it takes no
    // such message. This default hands the message to the task's HandleMsg.
    virtual int MessageHandle(void* target);

    // How many events the message carries; 1 for everything but batches. Losses are counted in events.
    virtual unsigned long EventCount() const { return 1; }
};

// A command for the agent's management side. Reaches its receiver through Task::HandleMsg.
class CmdMessage : public Message {
public:
    CmdMessage(const std::string& id, const std::string& content) : id(id), content(content) {}

    const std::string& Id() const { return id; }
    const std::string& Content() const { return content; }

private:
    std::string id;
    std::string content;
};

// A report. Type "2" is an alarm document. Reaches its receiver through Task::HandleMsg.
class DataMessage : public Message {
public:
    DataMessage(const std::string& type, const std::string& content) : type(type), content(content) {}

    const std::string& Type() const { return type; }
    const std::string& Content() const { return content; }

private:
    std::string type;
    std::string content;
};

}  // namespace Framework
