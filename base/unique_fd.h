#pragma once
#include <unistd.h>

#include <utility>

namespace base {

/// Owns one file descriptor. Moves, does not copy.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : m_fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            Reset(other.Release());
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { Reset(); }

    /// -1 when it owns none.
    [[nodiscard]] int Get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }

    /// Closes what it owns and takes `fd`.
    void Reset(int fd = -1) {
        if (m_fd >= 0) {
            close(m_fd);
        }
        m_fd = fd;
    }
    /// Hands the descriptor over without closing it; -1 when it owns none.
    [[nodiscard]] int Release() { return std::exchange(m_fd, -1); }

private:
    int m_fd = -1;
};

}  // namespace base
