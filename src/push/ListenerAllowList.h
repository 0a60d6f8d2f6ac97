#pragma once

#include <QHostAddress>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

#include <functional>

// Who may hand commands to the local listener. By default loopback and the
// configured server addresses; a ListenerAllow setting (addresses and CIDR
// ranges, comma-separated) replaces that default.
class ListenerAllowList
{
public:
    ListenerAllowList() = default;

    // A host name's IPv4 addresses; empty when it cannot be resolved.
    using Resolver = std::function<QList<QHostAddress>(const QString& name)>;

    // serverAddresses may hold host names; they are resolved here, with the
    // given resolver or else a blocking lookup.
    static ListenerAllowList fromSettings(const QStringList& serverAddresses, const QString& listenerAllow,
                                          QStringList* rejectedEntries = nullptr,
                                          const Resolver& resolver = Resolver());

    bool allows(const QHostAddress& peer) const;
    bool isEmpty() const { return m_ranges.isEmpty(); }

private:
    void add(const QHostAddress& address, int prefixLength);
    QList<QPair<QHostAddress, int>> m_ranges;
};
