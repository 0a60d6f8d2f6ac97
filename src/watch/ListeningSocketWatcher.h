#pragma once

#include "core/SockDiag.h"
#include "watch/ChangeWatcher.h"

#include <QByteArray>

#include <array>
#include <functional>
#include <optional>
#include <vector>

class QTimer;

// Listening TCP and unconnected UDP sockets (IPv4 and IPv6), asked of the
// kernel every few seconds and compared as a set of (protocol, address,
// port): which process owns a socket, or its inode, does not count.
class ListeningSocketWatcher : public ChangeWatcher
{
    Q_OBJECT
public:
    struct Key {
        uint8_t protocol = 0;
        uint8_t family = 0;
        uint16_t port = 0;
        std::array<uint8_t, 16> address{};
        bool operator<(const Key& o) const;
        bool operator==(const Key& o) const;
    };
    using Set = std::vector<Key>; // sorted, no duplicates

    // Asks the kernel (SockDiag::dump) unless replaced in tests.
    using Dump = std::function<std::optional<std::vector<SockDiag::Socket>>(int family, int protocol,
                                                                            uint32_t states)>;

    explicit ListeningSocketWatcher(int task, QObject* parent = nullptr, Dump dump = Dump());

    bool start() override;
    void stop();

    // One poll: reads the set and says changed when it differs from the last.
    void poll();

    // The set of one protocol's sockets, sorted and without duplicates.
    static void addToSet(Set& set, uint8_t protocol, const std::vector<SockDiag::Socket>& sockets);
    static void normalise(Set& set);

    static constexpr int kPollMs = 5000;

private:
    std::optional<Set> read();

    Dump m_dump;
    QTimer* m_timer;
    std::optional<Set> m_last;
    bool m_reportedFailure = false;
};
