#pragma once

#include <cerrno>
#include <unistd.h>
#include <utility>

// Owns one file descriptor and closes it exactly once, on every way out of
// the scope that opened it. Move-only; release() hands the descriptor over
// to a caller that takes ownership itself.
class UniqueFd
{
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : m_fd(fd) {}
    ~UniqueFd() { reset(); }

    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }

    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }
    explicit operator bool() const { return valid(); }

    int release()
    {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }

    // Closes the descriptor held (if any) and takes fd. errno is kept: callers
    // often log the error that made them give the descriptor up.
    void reset(int fd = -1)
    {
        if (m_fd >= 0 && m_fd != fd) {
            const int saved = errno;
            ::close(m_fd);
            errno = saved;
        }
        m_fd = fd;
    }

private:
    int m_fd = -1;
};
