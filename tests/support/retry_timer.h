#pragma once
/// Attempts that are made again later, without the wait.

/// Lets the moment come for which the test's own thread has made its last GLib timer, and serves the default
/// main context until it has run; false when that timer has run or is gone: there is nothing to try again.
bool LetRetryCome();

/// The wait of that timer in milliseconds; 0 when it has run or is gone.
unsigned RetryDelayMs();
