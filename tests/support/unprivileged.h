#pragma once
#include <unistd.h>

#include <cstdlib>

/// While it lives root has no privilege over files, as no ordinary user has.
class Unprivileged {
public:
    static constexpr uid_t kUser = 65534;

    Unprivileged() : m_user(geteuid()) { Become(m_user == 0 ? kUser : m_user); }
    ~Unprivileged() { Become(m_user); }
    Unprivileged(const Unprivileged&) = delete;
    Unprivileged& operator=(const Unprivileged&) = delete;

private:
    static void Become(uid_t user) {
        if (seteuid(user) != 0) {
            std::abort();
        }
    }

    const uid_t m_user;
};
