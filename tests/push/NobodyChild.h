#pragma once

// A forked child running as nobody (uid and gid 65534), to play a local user
// other than root against the listener. Its body runs right after fork, so it
// may only make async-signal-safe calls (sockets, pipes, _exit).

#include <QByteArray>

#include <functional>

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace edrtest
{

class NobodyChild
{
public:
    static constexpr uid_t kNobody = 65534;

    // body returns the child's exit status; it may call ready() and
    // holdUntilReleased().
    explicit NobodyChild(const std::function<int(NobodyChild&)>& body)
    {
        if (::pipe2(m_ready, O_CLOEXEC) != 0 || ::pipe2(m_release, O_CLOEXEC) != 0)
            return;
        m_pid = ::fork();
        if (m_pid == 0) {
            ::close(m_ready[0]);
            ::close(m_release[1]);
            if (::setgroups(0, nullptr) != 0 || ::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)
                ::_exit(120);
            ::_exit(body(*this));
        }
        ::close(m_ready[1]);
        ::close(m_release[0]);
        m_ready[1] = m_release[0] = -1;
    }
    ~NobodyChild()
    {
        release();
        wait();
        if (m_ready[0] >= 0)
            ::close(m_ready[0]);
    }
    NobodyChild(const NobodyChild&) = delete;
    NobodyChild& operator=(const NobodyChild&) = delete;

    pid_t pid() const { return m_pid; }

    // Child side.
    void ready() { (void)!::write(m_ready[1], "r", 1); }
    void holdUntilReleased()
    {
        char c;
        (void)!::read(m_release[0], &c, 1);
    }

    // Parent side. False when the child ended without saying it was ready.
    bool waitReady()
    {
        char c;
        return m_pid > 0 && ::read(m_ready[0], &c, 1) == 1;
    }
    void release()
    {
        if (m_release[1] >= 0)
            ::close(m_release[1]);
        m_release[1] = -1;
    }
    // The child's exit status, or -1 when it did not exit normally.
    int wait()
    {
        if (m_pid > 0) {
            int status = 0;
            if (::waitpid(m_pid, &status, 0) == m_pid)
                m_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            m_pid = -1;
        }
        return m_status;
    }

    // Connects to 127.0.0.1:port as nobody, sends text and reads until the
    // other side closes: the number of bytes that came back (capped at 100),
    // or 101 when the connection could not be made.
    static int sendToLoopback(int port, const QByteArray& text)
    {
        const char* data = text.constData();
        const size_t size = static_cast<size_t>(text.size());
        NobodyChild child([port, data, size](NobodyChild&) {
            const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_port = htons(static_cast<uint16_t>(port));
            a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
                return 101;
            // Only a guard against a listener that never closes.
            const timeval guard{60, 0};
            ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &guard, sizeof guard);
            (void)!::send(fd, data, size, MSG_NOSIGNAL);
            int total = 0;
            char buf[256];
            ssize_t n;
            while ((n = ::recv(fd, buf, sizeof buf, 0)) > 0)
                total += static_cast<int>(n);
            return total > 100 ? 100 : total;
        });
        return child.wait();
    }

private:
    pid_t m_pid = -1;
    int m_status = -1;
    int m_ready[2] = {-1, -1};
    int m_release[2] = {-1, -1};
};

} // namespace edrtest
