#pragma once
/// Waits for what another thread, another process or the main context makes true.
#include <glib.h>

#include <chrono>
#include <functional>

/// How long a test waits for what must come; reached only when it fails, whatever the machine is busy with.
constexpr std::chrono::seconds kPatience(60);

/// Waits until the condition holds; false when kPatience ends.
[[nodiscard]] bool Eventually(const std::function<bool()>& condition);
/// Serves a main context (null: the default one) until the condition holds, whoever makes it true; false when
/// kPatience ends.
[[nodiscard]] bool ServeUntil(const std::function<bool()>& condition, GMainContext* context = nullptr);
/// Runs `body` on `count` threads at the same time, with 0 to `count` - 1, and returns when all are done.
void OnThreads(int count, const std::function<void(int)>& body);
