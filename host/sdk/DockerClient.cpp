// SPDX-License-Identifier: Apache-2.0
#include "sdk/DockerClient.h"

#include "host/sdk/EngineRequest.h"

namespace SDK {

DockerClient::DockerClient(const std::string& socketPath, std::chrono::milliseconds timeout)
    : socketPath(socketPath), timeout(timeout)
{
}

DockerClient::Reply DockerClient::Get(const std::string& target) const
{
    const EngineRequest::Deadline deadline = std::chrono::steady_clock::now() + timeout;
    Reply reply;
    EngineRequest request(socketPath, target, [&body = reply.body](std::string_view part) {
        const std::size_t room = maxReplyBytes - body.size();
        body.append(part.substr(0, room));
        return part.size() <= room;
    });
    while (request.Continue() && request.Wait(deadline)) {
    }
    reply.status = request.Status();
    reply.error = request.Error();
    return reply;
}

}  // namespace SDK
