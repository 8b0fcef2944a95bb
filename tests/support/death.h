#pragma once
/// How a process that was crashed on purpose ends, and what it says.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

/// A predicate for EXPECT_EXIT: killed by a segmentation fault. The sanitizers catch the signal, report it
/// and end the process with a status of their own.
inline bool Crashed(int status) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return WIFSIGNALED(status) || (WIFEXITED(status) && WEXITSTATUS(status) != 0);
#else
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV;
#endif
}

/// For the child of EXPECT_EXIT: runs `action` with standard output where the report can be matched.
template <class Action>
void Reporting(Action action) {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    action();
}
