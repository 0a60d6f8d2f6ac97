#include "watch/InotifyWatcher.h"

#include <QFile>
#include <QSocketNotifier>

#include <cerrno>
#include <sys/inotify.h>
#include <unistd.h>
#include <vector>

InotifyWatcher::InotifyWatcher(QObject* parent) : QObject(parent) {}

InotifyWatcher::~InotifyWatcher()
{
    delete m_notifier;
}

bool InotifyWatcher::open()
{
    if (m_fd.valid())
        return true;
    m_fd.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!m_fd.valid())
        return false;
    m_notifier = new QSocketNotifier(m_fd.get(), QSocketNotifier::Read);
    connect(m_notifier, &QSocketNotifier::activated, this, [this] { readEvents(); });
    return true;
}

int InotifyWatcher::add(const QString& path, uint32_t mask, Handler handler)
{
    if (!m_fd.valid()) {
        errno = EBADF;
        return -1;
    }
    const int wd = ::inotify_add_watch(m_fd.get(), QFile::encodeName(path).constData(), mask);
    if (wd >= 0)
        m_handlers[wd] = std::move(handler);
    return wd;
}

void InotifyWatcher::remove(int wd)
{
    if (m_handlers.erase(wd) && m_fd.valid())
        ::inotify_rm_watch(m_fd.get(), wd);
}

int InotifyWatcher::addOverflowHandler(std::function<void()> handler)
{
    const int id = m_nextOverflowId++;
    m_overflow[id] = std::move(handler);
    return id;
}

void InotifyWatcher::removeOverflowHandler(int id)
{
    m_overflow.erase(id);
}

void InotifyWatcher::readEvents()
{
    if (!m_fd.valid())
        return;
    alignas(struct inotify_event) char buffer[16384];
    // Bounded: a directory that never stops changing still lets the event
    // loop run between reads.
    for (int round = 0; round < 16; ++round) {
        const ssize_t n = ::read(m_fd.get(), buffer, sizeof buffer);
        if (n <= 0)
            return;
        // Handlers may add or remove watches: collect first, then dispatch.
        std::vector<std::pair<int, Event>> events;
        bool overflow = false;
        for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(struct inotify_event)) <= n;) {
            const auto* e = reinterpret_cast<const struct inotify_event*>(buffer + at);
            const ssize_t size = static_cast<ssize_t>(sizeof(struct inotify_event) + e->len);
            if (at + size > n)
                break;
            if (e->mask & IN_Q_OVERFLOW) {
                overflow = true;
            } else {
                Event event;
                event.wd = e->wd;
                event.mask = e->mask;
                if (e->len > 0)
                    event.name =
                        QFile::decodeName(QByteArray(e->name, static_cast<int>(qstrnlen(e->name, e->len))));
                events.emplace_back(e->wd, event);
            }
            at += size;
        }
        for (const auto& entry : events) {
            const auto it = m_handlers.find(entry.first);
            if (it == m_handlers.end())
                continue;
            if (entry.second.mask & IN_IGNORED) {
                // The kernel dropped the watch (directory gone): the handler
                // hears of it once, then the descriptor is forgotten.
                const Handler handler = it->second;
                m_handlers.erase(it);
                handler(entry.second);
                continue;
            }
            const Handler handler = it->second; // may remove itself
            handler(entry.second);
        }
        if (overflow) {
            const auto handlers = m_overflow;
            for (const auto& h : handlers)
                h.second();
        }
    }
}
