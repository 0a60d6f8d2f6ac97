#pragma once

#include <QByteArray>

#include <cstdint>
#include <optional>
#include <vector>

// The kernel's own view of this host's sockets, through a NETLINK_SOCK_DIAG
// request: no tool is run and /proc is not walked, so a dump asking for
// listening sockets costs the same with ten or ten thousand connections open.
namespace SockDiag
{
// TCP states as the kernel numbers them (include/net/tcp_states.h).
enum State : uint8_t { Established = 1, Close = 7, Listen = 10 };
constexpr uint32_t stateBit(State s)
{
    return 1u << s;
}

struct Socket {
    uint8_t family = 0; // AF_INET or AF_INET6
    uint8_t state = 0;
    QByteArray localAddress; // 4 or 16 bytes, network order
    uint16_t localPort = 0;
    QByteArray remoteAddress;
    uint16_t remotePort = 0;
    uint32_t uid = 0;
    uint32_t inode = 0;
};

enum class Parsed { More, Done, Failed };

// Appends the records of one netlink reply datagram to out. Done when the
// dump's end (or an error message) was in it; Failed on anything garbled or
// truncated, or when the kernel answered with an error (its errno in *error).
Parsed parseReply(const char* data, size_t size, std::vector<Socket>* out, int* error = nullptr);

// Every socket of family (AF_INET, AF_INET6) and protocol (IPPROTO_TCP,
// IPPROTO_UDP) whose state is in the states mask. nullopt when the kernel
// cannot be asked or the answer is garbled; errno says why.
std::optional<std::vector<Socket>> dump(int family, int protocol, uint32_t states);

// The one TCP socket whose local end is local:localPort and remote end
// remote:remotePort (addresses of 4 or 16 bytes, network order); nullopt when
// there is none or the kernel cannot be asked (errno says which).
std::optional<Socket> findTcp(int family, const QByteArray& local, uint16_t localPort,
                              const QByteArray& remote, uint16_t remotePort);
} // namespace SockDiag
