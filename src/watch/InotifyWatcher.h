#pragma once

#include "core/UniqueFd.h"

#include <QObject>
#include <QString>

#include <cstdint>
#include <functional>
#include <map>

class QSocketNotifier;

// The one inotify instance every watcher shares (root daemons share a small
// limit of instances). Each watch descriptor has one handler; a queue
// overflow goes to every overflow handler, as a change of every kind.
class InotifyWatcher : public QObject
{
    Q_OBJECT
public:
    struct Event {
        int wd = -1;
        uint32_t mask = 0;
        QString name; // empty for events on the watched directory itself
    };
    using Handler = std::function<void(const Event&)>;

    explicit InotifyWatcher(QObject* parent = nullptr);
    ~InotifyWatcher() override;

    // False (errno set) when no instance can be had.
    bool open();
    bool isOpen() const { return m_fd.valid(); }

    // The watch descriptor, or -1 with errno. Adding a path already watched
    // (the same inode) replaces its mask and handler.
    int add(const QString& path, uint32_t mask, Handler handler);
    void remove(int wd);
    int watchCount() const { return static_cast<int>(m_handlers.size()); }

    // Returns an id for removeOverflowHandler.
    int addOverflowHandler(std::function<void()> handler);
    void removeOverflowHandler(int id);

    // Reads and dispatches whatever is queued (also called by the notifier).
    void readEvents();

private:
    UniqueFd m_fd;
    QSocketNotifier* m_notifier = nullptr;
    std::map<int, Handler> m_handlers;
    std::map<int, std::function<void()>> m_overflow;
    int m_nextOverflowId = 1;
};
