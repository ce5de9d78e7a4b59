// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/EngineRequest.h"

#include <curl/curl.h>
#include <sys/socket.h>

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

#include "host/sdk/EngineSocket.h"

namespace SDK {

// `self` is the request.
struct EngineRequest::Callbacks {
    // libcurl's own sockets are not close-on-exec.
    static curl_socket_t OpenSocket(void* self, curlsocktype /*purpose*/, curl_sockaddr* address)
    {
        int& fd = static_cast<EngineRequest*>(self)->fd;
        fd = ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
        return fd;
    }

    // The connection is made, and nothing has been sent.
    static int LookAtPeer(void* self, char* /*to*/, char* /*from*/, int /*toPort*/, int /*fromPort*/)
    {
        auto& request = *static_cast<EngineRequest*>(self);
        request.isRoots = EngineSocket::IsRoots(request.fd);
        return CURL_PREREQFUNC_OK;
    }

    static std::size_t TakeHead(const char* /*bytes*/, std::size_t size, std::size_t count, void* self)
    {
        std::size_t& headBytes = static_cast<EngineRequest*>(self)->headBytes;
        headBytes += size * count;
        return headBytes <= maxHeadBytes ? size * count : 0;
    }

    static std::size_t TakeBody(const char* bytes, std::size_t size, std::size_t count, void* self)
    {
        try {
            return static_cast<EngineRequest*>(self)->sink({bytes, size * count}) ? size * count : CURL_WRITEFUNC_ERROR;
        } catch (...) {  // libcurl is C
            return CURL_WRITEFUNC_ERROR;
        }
    }
};

void EngineRequest::EndMulti::operator()(void* handle) const
{
    curl_multi_cleanup(handle);
}

void EngineRequest::EndEasy::operator()(void* handle) const
{
    curl_easy_cleanup(handle);
}

EngineRequest::EngineRequest(const std::string& socketPath, const std::string& target, Sink sink)
    : sink(std::move(sink)), multi(curl_multi_init()), easy(curl_easy_init())
{
    if (multi == nullptr || easy == nullptr) {
        throw std::bad_alloc{};
    }
    SetOptions(socketPath, target);
    if (curl_multi_add_handle(multi.get(), easy.get()) != CURLM_OK) {
        throw std::bad_alloc{};
    }
}

EngineRequest::~EngineRequest()
{
    curl_multi_remove_handle(multi.get(), easy.get());  // before either is freed
}

// What libcurl does unless told otherwise is not repeated: it follows no redirect and takes no HTTP/0.9.
void EngineRequest::SetOptions(const std::string& socketPath, const std::string& target)
{
    const auto set = [this](CURLoption option, auto value) {
        if (curl_easy_setopt(easy.get(), option, value) != CURLE_OK) {
            throw std::bad_alloc{};
        }
    };
    set(CURLOPT_UNIX_SOCKET_PATH, socketPath.c_str());
    set(CURLOPT_URL, ("http://localhost" + target).c_str());
    set(CURLOPT_PROTOCOLS_STR, "http");
    set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    set(CURLOPT_PROXY, "");  // whatever the environment says
    set(CURLOPT_USERAGENT, "containerescape-agent");
    set(CURLOPT_NOSIGNAL, 1L);
    static_assert(sizeof(reason) >= CURL_ERROR_SIZE);
    set(CURLOPT_ERRORBUFFER, reason.data());
    set(CURLOPT_OPENSOCKETFUNCTION, &Callbacks::OpenSocket);
    set(CURLOPT_OPENSOCKETDATA, this);
    set(CURLOPT_PREREQFUNCTION, &Callbacks::LookAtPeer);
    set(CURLOPT_PREREQDATA, this);
    set(CURLOPT_HEADERFUNCTION, &Callbacks::TakeHead);
    set(CURLOPT_HEADERDATA, this);
    set(CURLOPT_WRITEFUNCTION, &Callbacks::TakeBody);
    set(CURLOPT_WRITEDATA, this);
}

bool EngineRequest::Continue()
{
    int running = 0;
    if (const CURLMcode code = curl_multi_perform(multi.get(), &running); code != CURLM_OK) {
        error = curl_multi_strerror(code);
        return false;
    }
    int left = 0;
    const CURLMsg* const end = running > 0 ? nullptr : curl_multi_info_read(multi.get(), &left);
    if (end != nullptr && end->data.result == CURLE_WRITE_ERROR) {
        error = "the reply is too long";  // TakeHead or TakeBody has refused it
    } else if (end != nullptr && end->data.result != CURLE_OK) {
        error = reason.front() != '\0' ? reason.data() : curl_easy_strerror(end->data.result);
    }
    return running > 0;
}

bool EngineRequest::Wait(Deadline deadline)
{
    using std::chrono::milliseconds;
    // Rounded up, so that a wait for what is left never ends before the deadline.
    const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
        error = "no answer in time";
        return false;
    }
    const auto limit = std::min(left, milliseconds{std::numeric_limits<int>::max()});
    if (const CURLMcode code = curl_multi_poll(multi.get(), nullptr, 0, static_cast<int>(limit.count()), nullptr);
        code != CURLM_OK) {
        error = curl_multi_strerror(code);
        return false;
    }
    return true;
}

bool EngineRequest::AwaitStatus(Deadline deadline)
{
    constexpr int firstFinal = 200;
    while (Continue() && Status() < firstFinal && Wait(deadline)) {
    }
    return Status() >= firstFinal;
}

int EngineRequest::Status() const
{
    long status = 0;
    curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
    return static_cast<int>(status);
}

}  // namespace SDK
