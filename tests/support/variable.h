#pragma once
#include <cstdlib>
#include <optional>
#include <string>

/// An environment variable that has its old value again afterwards.
class Variable {
public:
    /// @param value null: unset
    Variable(const char* name, const char* value) : m_name(name) {
        if (const char* old = std::getenv(name)) {
            m_old = old;
        }
        Set(value);
    }
    ~Variable() { Set(m_old ? m_old->c_str() : nullptr); }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;
    void Set(const char* value) {
        if (value != nullptr) {
            setenv(m_name, value, 1);
        } else {
            unsetenv(m_name);
        }
    }

private:
    const char* m_name;
    std::optional<std::string> m_old;
};
