// SPDX-License-Identifier: Apache-2.0
#include "host/cri/CriLibrary.h"

#include <grpc/grpc.h>
#include <grpc/support/log.h>
#include <grpcpp/create_channel_posix.h>
#include <grpcpp/grpcpp.h>

#include <algorithm>
#include <memory>

#include "runtime_v1.grpc.pb.h"

namespace Engine::Cri {

namespace {

namespace Api = ::runtime::v1;

Outcome OutcomeOf(grpc::StatusCode code)
{
    switch (code) {
        case grpc::StatusCode::OK:
            return Outcome::Known;
        case grpc::StatusCode::NOT_FOUND:
            return Outcome::Unknown;
        case grpc::StatusCode::UNIMPLEMENTED:
            return Outcome::NotOffered;
        case grpc::StatusCode::UNAVAILABLE:
        case grpc::StatusCode::DEADLINE_EXCEEDED:
            return Outcome::Failed;
        default:
            return Outcome::Refused;
    }
}

grpc::ChannelArguments Bounds()
{
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(maxReplyBytes);
    arguments.SetInt(GRPC_ARG_ENABLE_RETRIES, 0);
    return arguments;
}

// Of what a list has, that with the id itself.
template <class Items>
const typename Items::value_type* WithId(const Items& items, const std::string& id)
{
    const auto found = std::find_if(items.begin(), items.end(), [&id](const auto& item) { return item.id() == id; });
    return found == items.end() ? nullptr : &*found;
}

// One question: some calls on a connection, with one deadline.
class Question {
public:
    Question(int connection, std::chrono::milliseconds timeout, Answer& answer)
        : stub(
              Api::RuntimeService::NewStub(grpc::CreateCustomInsecureChannelFromFd("localhost", connection, Bounds()))),
          deadline(gpr_time_add(gpr_now(GPR_CLOCK_MONOTONIC), gpr_time_from_millis(timeout.count(), GPR_TIMESPAN))),
          answer(answer)
    {
    }

    void AskForVersion()
    {
        Api::VersionResponse version;
        if (Call(&Stub::Version, Api::VersionRequest{}, version)) {
            answer.text = std::string{version.runtime_name()}.append(" ").append(version.runtime_version());
        }
    }

    void AskAbout(const std::string& id)
    {
        Api::ListRequest request;
        request.mutable_filter()->set_id(id);
        Api::ListContainersResponse list;
        if (!Call(&Stub::ListContainers, request, list)) {
            return;
        }
        const Api::Container* container = WithId(list.containers(), id);
        if (container == nullptr) {
            AskForPod(id);
            answer.name = answer.pod.name;
        } else if (AskForStatus(*container)) {
            AskForPod(container->pod_sandbox_id());
            answer.outcome = answer.outcome == Outcome::Failed ? Outcome::Failed : Outcome::Known;
        }
    }

private:
    using Stub = Api::RuntimeService::Stub;

    template <class Request, class Reply>
    using Method = grpc::Status (Stub::*)(grpc::ClientContext*, const Request&, Reply*);

    template <class Request, class Reply>
    grpc::Status Try(Method<Request, Reply> method, const Request& request, Reply& reply)
    {
        grpc::ClientContext context;
        context.set_deadline(deadline);
        return (stub.get()->*method)(&context, request, &reply);
    }

    // False, with the outcome, when there is no answer.
    template <class Request, class Reply>
    bool Call(Method<Request, Reply> method, const Request& request, Reply& reply)
    {
        const grpc::Status status = Try(method, request, reply);
        answer.outcome = OutcomeOf(status.error_code());
        answer.text = status.error_message();
        return status.ok();
    }

    // What the container was made from first: an image may have other names, of which its status tells any.
    bool AskForStatus(const Api::Container& container)
    {
        Api::ContainerStatusRequest request;
        request.set_container_id(container.id());
        Api::ContainerStatusResponse response;
        if (!Call(&Stub::ContainerStatus, request, response)) {
            return false;
        }
        const Api::ContainerStatus& status = response.status();
        answer.name = status.metadata().name();
        answer.images = {status.image().user_specified_image(), container.image().image(), status.image().image()};
        answer.references = {container.image_id(), status.image_id(), container.image_ref(), status.image_ref()};
        for (const Api::Mount& mount : status.mounts()) {
            answer.mounts.push_back(mount.container_path());
        }
        for (const Api::Label& label : status.labels()) {
            answer.labels.emplace_back(label.key(), label.value());
        }
        AskForDetails(request);
        return true;
    }

    // By a call of its own: what it answers may be too long, and nothing else must be lost with it.
    void AskForDetails(Api::ContainerStatusRequest& request)
    {
        request.set_verbose(true);
        Api::ContainerStatusResponse response;
        if (Try(&Stub::ContainerStatus, request, response).ok()) {
            for (const Api::Label& each : response.info()) {
                answer.details = each.key() == "info" ? each.value() : answer.details;
            }
        }
    }

    void AskForPod(const std::string& id)
    {
        Api::ListRequest request;
        request.mutable_filter()->set_id(id);
        Api::ListPodSandboxResponse list;
        if (!Call(&Stub::ListPodSandbox, request, list)) {
            return;
        }
        if (const Api::PodSandbox* pod = WithId(list.items(), id)) {
            answer.pod = {pod->metadata().name(), pod->metadata().namespace_(), pod->metadata().uid()};
        } else {
            answer.outcome = Outcome::Unknown;
        }
    }

    const std::unique_ptr<Stub> stub;
    const gpr_timespec deadline;
    Answer& answer;
};

// Once, and never undone: its threads would be started and ended for each question.
void Start()
{
    static const bool isStarted = [] {
        gpr_set_log_function([](gpr_log_func_args* /*arguments*/) {});  // what fails is told by the outcome
        grpc_init();
        return true;
    }();
    static_cast<void>(isStarted);
}

}  // namespace

}  // namespace Engine::Cri

extern "C" __attribute__((visibility("default"))) void AskCriEngine(int connection, const std::string& id,
                                                                    std::chrono::milliseconds timeout,
                                                                    Engine::Cri::Answer& answer)
{
    Engine::Cri::Start();
    Engine::Cri::Question question(connection, timeout, answer);
    id.empty() ? question.AskForVersion() : question.AskAbout(id);
}
