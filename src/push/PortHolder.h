#pragma once

#include "core/HostPaths.h"

#include <QList>
#include <QString>

#include <cstdint>

// Names whoever holds a TCP port the listener cannot bind: a local user who
// takes the port first would receive the server's commands, so the log must
// say who that is.
class PortHolder
{
public:
    struct Process {
        int pid = 0;
        QString name; // its comm
    };

    // Reading this many descriptor links ends the walk: on a host with
    // millions of open files the holder is then said to be unknown.
    static constexpr int kMaxLinks = 200000;

    explicit PortHolder(const HostPaths& paths = HostPaths()) : m_paths(paths) {}

    // Processes with socket inode open, by pid, found by reading the links
    // under <proc>/<pid>/fd (a link is read, never opened, so nothing blocks).
    QList<Process> processesWithSocket(uint32_t inode, int maxLinks = kMaxLinks) const;

    // "pid 1234 (nc) of user nobody" for what listens on (or is bound to) TCP
    // port; "an unknown process" when the kernel or /proc cannot tell.
    QString describeTcpPort(uint16_t port) const;

private:
    HostPaths m_paths;
};
