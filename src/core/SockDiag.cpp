#include "core/SockDiag.h"

#include "core/UniqueFd.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace SockDiag
{
namespace
{
// A stuck kernel answer must not hold a caller: each datagram gets this long.
constexpr int kReceiveTimeoutMs = 2000;
constexpr size_t kBufferSize = 64 * 1024;

int addressSize(uint8_t family)
{
    return family == AF_INET6 ? 16 : 4;
}

Socket fromMessage(const inet_diag_msg& msg)
{
    Socket s;
    s.family = msg.idiag_family;
    s.state = msg.idiag_state;
    const int len = addressSize(msg.idiag_family);
    s.localAddress = QByteArray(reinterpret_cast<const char*>(msg.id.idiag_src), len);
    s.remoteAddress = QByteArray(reinterpret_cast<const char*>(msg.id.idiag_dst), len);
    s.localPort = ntohs(msg.id.idiag_sport);
    s.remotePort = ntohs(msg.id.idiag_dport);
    s.uid = msg.idiag_uid;
    s.inode = msg.idiag_inode;
    return s;
}

// Sends one request and reads its answer to the end; nullopt with errno set
// when anything fails on the way.
std::optional<std::vector<Socket>> exchange(const inet_diag_req_v2& req, uint16_t flags)
{
    UniqueFd fd(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    if (!fd)
        return std::nullopt;
    struct {
        nlmsghdr header;
        inet_diag_req_v2 body;
    } request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST | flags;
    request.header.nlmsg_seq = 1;
    request.body = req;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (::sendto(fd.get(), &request, sizeof request, MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&kernel),
                 sizeof kernel) != static_cast<ssize_t>(sizeof request))
        return std::nullopt;

    std::vector<Socket> sockets;
    std::vector<char> buffer(kBufferSize);
    for (;;) {
        pollfd p{fd.get(), POLLIN, 0};
        const int ready = ::poll(&p, 1, kReceiveTimeoutMs);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0) {
            if (ready == 0)
                errno = ETIMEDOUT;
            return std::nullopt;
        }
        const ssize_t n = ::recv(fd.get(), buffer.data(), buffer.size(), MSG_TRUNC);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return std::nullopt;
        }
        if (static_cast<size_t>(n) > buffer.size()) {
            errno = EMSGSIZE;
            return std::nullopt;
        }
        int error = 0;
        switch (parseReply(buffer.data(), static_cast<size_t>(n), &sockets, &error)) {
        case Parsed::More:
            break;
        case Parsed::Done:
            return sockets;
        case Parsed::Failed:
            errno = error ? error : EBADMSG;
            return std::nullopt;
        }
    }
}
} // namespace

Parsed parseReply(const char* data, size_t size, std::vector<Socket>* out, int* error)
{
    if (error)
        *error = 0;
    size_t offset = 0;
    while (offset < size) {
        if (size - offset < sizeof(nlmsghdr))
            return Parsed::Failed;
        nlmsghdr header;
        std::memcpy(&header, data + offset, sizeof header);
        if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > size - offset)
            return Parsed::Failed;
        const char* payload = data + offset + NLMSG_HDRLEN;
        const size_t payloadSize = header.nlmsg_len - std::min<size_t>(NLMSG_HDRLEN, header.nlmsg_len);
        if (header.nlmsg_type == NLMSG_DONE)
            return Parsed::Done;
        if (header.nlmsg_type == NLMSG_ERROR) {
            nlmsgerr err{};
            if (payloadSize < sizeof err)
                return Parsed::Failed;
            std::memcpy(&err, payload, sizeof err);
            if (err.error == 0)
                return Parsed::Done; // an acknowledgement
            if (error)
                *error = err.error < 0 ? -err.error : EBADMSG;
            return Parsed::Failed;
        }
        if (header.nlmsg_type == SOCK_DIAG_BY_FAMILY) {
            if (payloadSize < sizeof(inet_diag_msg))
                return Parsed::Failed;
            inet_diag_msg msg;
            std::memcpy(&msg, payload, sizeof msg);
            if (msg.idiag_family != AF_INET && msg.idiag_family != AF_INET6)
                return Parsed::Failed;
            out->push_back(fromMessage(msg));
            // A single answer (not part of a dump) ends the exchange.
            if (!(header.nlmsg_flags & NLM_F_MULTI))
                return Parsed::Done;
        }
        const size_t step = NLMSG_ALIGN(header.nlmsg_len);
        if (step > size - offset)
            break; // the last message's padding may be cut off
        offset += step;
    }
    return Parsed::More;
}

std::optional<std::vector<Socket>> dump(int family, int protocol, uint32_t states)
{
    inet_diag_req_v2 req{};
    req.sdiag_family = static_cast<uint8_t>(family);
    req.sdiag_protocol = static_cast<uint8_t>(protocol);
    req.idiag_states = states;
    return exchange(req, NLM_F_DUMP);
}

std::optional<Socket> findTcp(int family, const QByteArray& local, uint16_t localPort,
                              const QByteArray& remote, uint16_t remotePort)
{
    const int len = addressSize(static_cast<uint8_t>(family));
    if ((family != AF_INET && family != AF_INET6) || local.size() != len || remote.size() != len) {
        errno = EINVAL;
        return std::nullopt;
    }
    inet_diag_req_v2 req{};
    req.sdiag_family = static_cast<uint8_t>(family);
    req.sdiag_protocol = IPPROTO_TCP;
    req.idiag_states = ~0u;
    std::memcpy(req.id.idiag_src, local.constData(), static_cast<size_t>(len));
    std::memcpy(req.id.idiag_dst, remote.constData(), static_cast<size_t>(len));
    req.id.idiag_sport = htons(localPort);
    req.id.idiag_dport = htons(remotePort);
    req.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    req.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    const auto found = exchange(req, 0);
    if (!found)
        return std::nullopt;
    if (found->empty()) {
        errno = ENOENT;
        return std::nullopt;
    }
    return found->front();
}
} // namespace SockDiag
