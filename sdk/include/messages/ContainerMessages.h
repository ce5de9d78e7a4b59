// SPDX-License-Identifier: Apache-2.0
// Containers, as the task "container_collect_task" of libcontainer_module.so knows them. A detection task registers
// there with ContainerRegisterMessage and then gets a ContainerProcMessage for each process that appears in a container
// other than by a fork inside it.
#pragma once

#include <Poco/Logger.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "messages/AbstructMessage.h"
#include "sdk/DockerClient.h"

namespace Engine {

// What the engine says about one container. Texts are hostile input.
struct ContainerInfo {
    std::string id;         // 64 hexadecimal digits with most engines
    std::string name;       // without the leading slash
    std::string imageId;    // for example "sha256:..."
    std::string imageName;  // as the container was created from it, tag included if one was given

    // Kind ("ipc", "mnt", "net", "pid", "user", "uts") to identity, as SDK::NamespaceUtils writes it: the namespaces of
    // the container's first process at its start. Empty when they could not be read.
    std::map<std::string, std::string> namespaces;

    // Where the container's mounts end inside it (the engine's "Mounts"[].Destination).
    std::vector<std::string> mountDestinations;

    // The Kubernetes pod that it belongs to. Empty for others, or when its engine has not told.
    struct Pod {
        std::string name;
        std::string nameSpace;
        std::string uid;
    };
    Pod pod = {};

    std::optional<bool> privileged = {};  // nothing where the engine does not tell

    std::string imageDigest = {};  // of the image's manifest, as a registry has it; empty when it is not known
    // The image's own, too, which the container was created from: what an image says of itself proves nothing.
    std::map<std::string, std::string> labels = {};

    // "docker", "podman", "cri" (Kubernetes) or "containerd", as it or its files tell; empty for a runtime alone, and
    // when none has told.
    std::string engine = {};
};

// The container metadata service: an interface of the task registered as "container_collect_task". Answers come from a
// cache and never wait for the engine. Any thread.
class ContainerMetaInfo {
public:
    // Each fills `info` with a shared record, never changed afterwards. False: not known; `info` is then untouched.
    virtual bool GetContainerById(const std::string& containerId, std::shared_ptr<ContainerInfo>& info) = 0;
    virtual bool GetContainerByPid(int pid, std::shared_ptr<ContainerInfo>& info) = 0;

    // Whether it is worth asking: false until the collector has read what runs for the first time.
    virtual bool IsAvailable() = 0;

    virtual ~ContainerMetaInfo() = default;
};

// A process that appeared in a container without a parent in it (the container's first process, a process that the
// engine put into it), or one that went away.
class ContainerProcMessage : public AbstructMessage<ContainerProcMessage> {
public:
    // Texts come from the process itself and are hostile input.
    struct ProcInfo {
        std::string containerId;
        int pid = -1;            // as the agent's own pid namespace numbers them
        int ppid = -1;           // -1: not known
        std::string executable;  // its path; empty when it cannot be read
        std::string name;        // command name, at most 15 bytes
        std::string cmdline;     // empty unless it was at hand
        std::string imageName;   // empty when the engine has not told it
    };

    ContainerProcMessage(bool started, std::shared_ptr<ProcInfo> info) : started(started), info(std::move(info)) {}

    bool started;                    // false: it went away
    std::shared_ptr<ProcInfo> info;  // never changed once sent; null: a notice about no process
};

// Asks "container_collect_task" to send a task the notices above, or to stop. A task counts once, however often it
// asks. At a first registration the collector also announces every container process that runs already.
class ContainerRegisterMessage : public AbstructMessage<ContainerRegisterMessage> {
public:
    ContainerRegisterMessage(Framework::Task* requester, bool flag, bool subscribe)
        : requester(requester), flag(flag), subscribe(subscribe)
    {
    }

    Framework::Task* requester;  // not owned
    bool flag;                   // reserved, false
    bool subscribe;              // true: start, false: stop
};

// Tells "audit_task", where an agent has one, to drop what a task subscribed to there.
class AuditUnsubscribeMessage : public AbstructMessage<AuditUnsubscribeMessage> {
public:
    explicit AuditUnsubscribeMessage(Framework::Task* requester) : requester(requester) {}

    Framework::Task* requester;  // not owned
};

}  // namespace Engine

class DockerUtil {
public:
    // Fills `info` for one container from the collector's cache; the engine behind `client` is not asked, so no caller
    // waits for it. What the cache does not hold is a container all the same, its control group says so: `info` then
    // has its id alone. An engine that is absent or hangs costs an alarm its names, not its delivery. False for what
    // cannot be a container's id. Any thread.
    static bool GetContainerInfo(SDK::DockerClient& client, const std::string& containerId,
                                 Engine::ContainerInfo& info);

    // The container module's logger. Never null.
    static Poco::Logger* GetLoggerPtr();
};
