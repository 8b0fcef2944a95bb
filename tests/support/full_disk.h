#pragma once
#include <sys/resource.h>

#include <csignal>

/// While it lives no file of this process grows beyond `bytes`: a disk that is full.
class FullDisk {
public:
    explicit FullDisk(rlim_t bytes) : m_handler(std::signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &m_limit);
        const rlimit limit{bytes, m_limit.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FullDisk() {
        setrlimit(RLIMIT_FSIZE, &m_limit);
        std::signal(SIGXFSZ, m_handler);
    }
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;

private:
    rlimit m_limit{};
    void (*m_handler)(int);
};
