#include "push/ListenerAllowList.h"

#include <QHostInfo>

void ListenerAllowList::add(const QHostAddress& address, int prefixLength)
{
    m_ranges.append(qMakePair(address, prefixLength));
}

ListenerAllowList ListenerAllowList::fromSettings(const QStringList& serverAddresses,
                                                  const QString& listenerAllow, QStringList* rejectedEntries,
                                                  const Resolver& resolver)
{
    ListenerAllowList list;
    const QString configured = listenerAllow.trimmed();
    if (!configured.isEmpty()) {
        const QStringList entries = configured.split(QLatin1Char(','), Qt::SkipEmptyParts);
        for (const QString& raw : entries) {
            const QString entry = raw.trimmed();
            if (entry.contains(QLatin1Char('/'))) {
                const QPair<QHostAddress, int> subnet = QHostAddress::parseSubnet(entry);
                if (!subnet.first.isNull() && subnet.second >= 0) {
                    list.add(subnet.first, subnet.second);
                    continue;
                }
            } else {
                const QHostAddress address(entry);
                if (!address.isNull()) {
                    list.add(address, address.protocol() == QAbstractSocket::IPv6Protocol ? 128 : 32);
                    continue;
                }
            }
            if (rejectedEntries)
                rejectedEntries->append(entry);
        }
        return list;
    }

    list.add(QHostAddress(QStringLiteral("127.0.0.0")), 8);
    list.add(QHostAddress::LocalHostIPv6, 128);
    for (const QString& server : serverAddresses) {
        const QHostAddress literal(server);
        if (!literal.isNull()) {
            list.add(literal, 32);
            continue;
        }
        const QList<QHostAddress> resolved =
            resolver ? resolver(server) : QHostInfo::fromName(server).addresses();
        for (const QHostAddress& address : resolved)
            if (address.protocol() == QAbstractSocket::IPv4Protocol)
                list.add(address, 32);
    }
    return list;
}

bool ListenerAllowList::allows(const QHostAddress& peer) const
{
    bool ok = false;
    const quint32 v4 = peer.toIPv4Address(&ok); // v4-mapped peers compare as IPv4
    const QHostAddress address = ok ? QHostAddress(v4) : peer;
    for (const auto& range : m_ranges)
        if (address.isInSubnet(range.first, range.second))
            return true;
    return false;
}
