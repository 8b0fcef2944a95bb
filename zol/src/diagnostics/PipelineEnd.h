#pragma once
/// Waiting for background processes that are nobody's children.
#include <mutex>

namespace zol {

/// Tells when every process that was started with the writing end of a pipe is gone, whoever became its
/// parent meanwhile. Any thread.
class PipelineEnd {
public:
    PipelineEnd() = default;
    ~PipelineEnd();
    PipelineEnd(const PipelineEnd&) = delete;
    PipelineEnd& operator=(const PipelineEnd&) = delete;

    /// Makes a new pipe and forgets an earlier one. The writing end, to be inherited by what is started now;
    /// it stays this object's, closes at exec, and is -1 when there can be no pipe.
    int Open();
    /// What was to be started has its writing end: ours is closed.
    void Started();
    /// Waits until all of them are gone, at most `timeoutMs`, and forgets them. False when some are left
    /// then. True at once when nothing was started.
    bool Wait(int timeoutMs);

private:
    bool AreGone() const;
    void Close();

    std::mutex m_mutex;
    int m_reading = -1;
    int m_writing = -1;
};

}  // namespace zol
