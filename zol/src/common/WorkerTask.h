#pragma once
/// Starting and ending a worker: an object that is a task and the receiver of its own events.

class CCHandler;
class CCTask;

/// Starts the task and binds the handler to it; both are bases of one worker. A failure is logged under
/// `source` and `line`, undone, and comes back as false.
[[nodiscard]] bool StartWorkerTask(CCTask& task, CCHandler& handler, const char* name, const char* source,
                                   int line);

/// Drops the worker's events, ends its loop and its task; nothing to do for a worker that was not started or
/// has ended. For the worker's destructor, before its members go. Not on its thread.
void EndWorkerTask(CCTask& task, CCHandler& handler);
