#include "waiting.h"

#include <thread>
#include <vector>

namespace {

constexpr unsigned kLookMs = 2;
/// Looks without a pause first: much comes in a moment.
constexpr int kQuickLooks = 1000;

gboolean GoOn(gpointer /*data*/) {
    return G_SOURCE_CONTINUE;
}

bool WaitUntil(const std::function<bool()>& condition, const std::function<void()>& pass) {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        pass();
    }
    return true;
}

}  // namespace

bool Eventually(const std::function<bool()>& condition) {
    int looks = 0;
    return WaitUntil(condition, [&looks] {
        if (++looks < kQuickLooks) {
            std::this_thread::yield();
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(kLookMs));
        }
    });
}

bool ServeUntil(const std::function<bool()>& condition, GMainContext* context) {
    // Another thread may make the condition true without waking the context.
    GSource* tick = g_timeout_source_new(kLookMs);
    g_source_set_priority(tick, G_PRIORITY_LOW);
    g_source_set_callback(tick, GoOn, nullptr, nullptr);
    g_source_attach(tick, context);
    const bool held = WaitUntil(condition, [context] { g_main_context_iteration(context, TRUE); });
    g_source_destroy(tick);
    g_source_unref(tick);
    return held;
}

void OnThreads(int count, const std::function<void(int)>& body) {
    std::vector<std::thread> threads;
    for (int index = 0; index < count; ++index) {
        threads.emplace_back(body, index);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}
