// SPDX-License-Identifier: Apache-2.0
#include "sdk/DockerClient.h"

#include "host/sdk/EngineConnection.h"

namespace SDK {

namespace {

using Progress = EngineConnection::Progress;

// The error that cut the reply short; empty when it is complete. What came of it is in `body` either way.
std::string ReadReply(EngineConnection& connection, std::string& body, EngineConnection::Deadline deadline)
{
    for (;;) {
        if (!connection.WaitReadable(deadline)) {
            return connection.Error();
        }
        const Progress progress = connection.Read(body);
        if (body.size() > DockerClient::maxReplyBytes) {
            body.resize(DockerClient::maxReplyBytes);
            return "the reply is too long";
        }
        if (progress == Progress::Failed) {
            return connection.Error();
        }
        if (progress == Progress::Ended) {
            return {};
        }
    }
}

}  // namespace

DockerClient::DockerClient(const std::string& socketPath, std::chrono::milliseconds timeout)
    : socketPath(socketPath), timeout(timeout)
{
}

DockerClient::Reply DockerClient::Get(const std::string& target) const
{
    const EngineConnection::Deadline deadline = std::chrono::steady_clock::now() + timeout;
    Reply result;
    EngineConnection connection;
    if (!connection.Request(socketPath, target, deadline)) {
        result.error = connection.Error();
        return result;
    }
    result.error = ReadReply(connection, result.body, deadline);
    result.status = connection.Reply().Status();
    return result;
}

}  // namespace SDK
