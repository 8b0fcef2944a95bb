#pragma once
/// Commands that go on until they are interrupted.
#include <glib-unix.h>

#include <array>
#include <csignal>

#include "base/glib_handles.h"

namespace zolctl {

/// A main loop that SIGINT and SIGTERM end.
class Loop {
public:
    Loop()
        : m_handlers{g_unix_signal_add(SIGINT, QuitCb, m_loop.get()),
                     g_unix_signal_add(SIGTERM, QuitCb, m_loop.get())} {}
    ~Loop() {
        for (const guint handler : m_handlers) {
            g_source_remove(handler);
        }
    }
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    /// Returns at once when it was told to quit before.
    void Run() {
        if (!m_isOver) {
            g_main_loop_run(m_loop.get());
        }
    }
    void Quit() {
        m_isOver = true;
        g_main_loop_quit(m_loop.get());
    }

private:
    static gboolean QuitCb(gpointer loop) {
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
        return G_SOURCE_CONTINUE;
    }

    const base::GMainLoopPtr m_loop{g_main_loop_new(nullptr, FALSE)};
    const std::array<guint, 2> m_handlers;
    bool m_isOver = false;
};

}  // namespace zolctl
