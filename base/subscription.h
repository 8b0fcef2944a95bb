#pragma once
#include <functional>
#include <utility>

namespace base {

/// A registration that withdraws itself when it goes. Moves, does not copy. For callbacks of C interfaces
/// that are registered as (function, user data):
///
///     m_pairing = base::Subscription([this] { bt_unset_callback(PairedCb, this); });
///
/// Costs one std::function; a lambda that captures up to two pointers allocates nothing.
class Subscription {
public:
    Subscription() = default;
    explicit Subscription(std::function<void()> withdraw) : m_withdraw(std::move(withdraw)) {}
    Subscription(Subscription&& other) noexcept : m_withdraw(std::exchange(other.m_withdraw, nullptr)) {}
    Subscription& operator=(Subscription&& other) noexcept {
        if (this != &other) {
            Reset();
            m_withdraw = std::exchange(other.m_withdraw, nullptr);
        }
        return *this;
    }
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;
    ~Subscription() { Reset(); }

    explicit operator bool() const { return m_withdraw != nullptr; }

    /// Withdraws now; nothing to do when there is nothing to withdraw.
    void Reset() {
        if (const auto withdraw = std::exchange(m_withdraw, nullptr)) {
            withdraw();
        }
    }

    /// Leaves the registration to somebody else, who withdraws it.
    void Release() { m_withdraw = nullptr; }

private:
    std::function<void()> m_withdraw;
};

}  // namespace base
