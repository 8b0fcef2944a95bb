#pragma once
/// Owner of a file descriptor.
#include <unistd.h>

#include <utility>

namespace maker {

/// Closes its descriptor, if it has one, when it goes.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) : m_fd(fd) {}
    ~FileDescriptor() { Reset(); }
    FileDescriptor(FileDescriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        Reset(std::exchange(other.m_fd, -1));
        return *this;
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int Get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }

    void Reset(int fd = -1) {
        if (m_fd >= 0) {
            close(m_fd);
        }
        m_fd = fd;
    }
    /// Closes now; false when the system reports a late write error.
    bool Close() { return close(std::exchange(m_fd, -1)) == 0; }

private:
    int m_fd;
};

}  // namespace maker
