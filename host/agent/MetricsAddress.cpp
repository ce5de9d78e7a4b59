// SPDX-License-Identifier: Apache-2.0
#include "host/agent/MetricsAddress.h"

#include <Poco/Exception.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/NumberParser.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "host/agent/Console.h"
#include "host/sdk/EngineSocket.h"

namespace Agent {

namespace {

using Poco::Net::SocketAddress;

constexpr char unixPrefix[] = "unix:";
constexpr int backlog = 16;
constexpr mode_t ownersAlone = 0600;
constexpr unsigned int maxPort = 65535;

BadInput Refused(const std::string& address, const std::string& why)
{
    return BadInput{std::string{"metrics at "}.append(address).append(": ").append(why)};
}

// A socket that no process listens on any more.
bool IsStale(const std::string& path)
{
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode) && !SDK::EngineSocket::Connect(path) &&
           errno == ECONNREFUSED;
}

}  // namespace

SocketAddress ParseMetricsAddress(const std::string& text)
{
    if (text.starts_with(unixPrefix)) {
        const std::string path = text.substr(sizeof(unixPrefix) - 1);
        if (!path.starts_with('/') || path.size() >= sizeof(sockaddr_un::sun_path)) {
            throw Refused(text, "the path must be absolute, and shorter than 108 bytes");
        }
        return {SocketAddress::UNIX_LOCAL, path};
    }
    const std::size_t colon = text.rfind(':');
    std::string host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    unsigned int port = 0;
    Poco::Net::IPAddress address;
    if (colon == std::string::npos || !Poco::NumberParser::tryParseUnsigned(text.substr(colon + 1), port) ||
        port == 0 || port > maxPort || !Poco::Net::IPAddress::tryParse(host, address)) {
        throw Refused(text, "must be unix:/PATH, or the number of a loopback address with a port: 127.0.0.1:PORT");
    }
    if (!address.isLoopback()) {
        throw Refused(text, "other hosts reach this address; only a loopback address is allowed: 127.0.0.1:PORT");
    }
    return {address, static_cast<Poco::UInt16>(port)};
}

// Linux: a socket's file gets the mode that the socket has when it is bound, less the umask (unix_bind_bsd() in
// net/unix/af_unix.c), so there is no moment at which others could connect. bind(2) follows no symbolic link at the
// path's end and takes no path that exists.
MetricsListener::MetricsListener(const std::string& text)
{
    const SocketAddress address = ParseMetricsAddress(text);
    const bool isFile = address.family() == SocketAddress::UNIX_LOCAL;
    descriptor.Reset(::socket(address.af(), SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    if (!isFile) {
        ::setsockopt(descriptor.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    } else {
        ::fchmod(descriptor.Get(), ownersAlone);
    }
    const auto bind = [&] {
        return ::bind(descriptor.Get(), address.addr(), address.length()) == 0;
    };
    const std::string file = isFile ? text.substr(sizeof(unixPrefix) - 1) : std::string{};
    bool isBound = bind();
    if (!isBound && errno == EADDRINUSE && isFile && IsStale(file)) {
        ::unlink(file.c_str());
        isBound = bind();
    }
    struct stat status {};
    if (isBound && isFile && ::lstat(file.c_str(), &status) == 0) {
        path = file;
        device = status.st_dev;
        inode = status.st_ino;
    }
    if (!isBound || ::listen(descriptor.Get(), backlog) != 0) {
        throw Refused(text, errno == EADDRINUSE ? "something else is there already" : std::strerror(errno));
    }
}

MetricsListener::MetricsListener(MetricsListener&& other) noexcept
    : descriptor(std::move(other.descriptor)),
      path(std::exchange(other.path, {})),
      device(other.device),
      inode(other.inode)
{
}

MetricsListener& MetricsListener::operator=(MetricsListener&& other) noexcept
{
    std::swap(descriptor, other.descriptor);
    std::swap(path, other.path);
    std::swap(device, other.device);
    std::swap(inode, other.inode);
    return *this;
}

MetricsListener::~MetricsListener()
{
    struct stat status {};
    if (!path.empty() && ::lstat(path.c_str(), &status) == 0 && status.st_dev == device && status.st_ino == inode) {
        ::unlink(path.c_str());
    }
}

}  // namespace Agent
