#pragma once
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "record.h"

namespace dlogutil {

/// Where records come from.
class Source {
public:
    Source() = default;
    virtual ~Source() = default;
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    /// Hands over what there is and has not been handed over yet, oldest first. False on an error.
    [[nodiscard]] virtual bool Drain(const std::function<void(const Record&)>& sink) = 0;

    /// Waits until there may be more, or until `stop` has input. False when nobody reads the output any more,
    /// or on an error.
    /// @param stop a descriptor, or -1
    [[nodiscard]] virtual bool Wait(int stop = -1) = 0;

    /// After a Drain: why the log, or a part of it, was not read. "No such file or directory" when there is
    /// none yet.
    [[nodiscard]] virtual std::error_code Missing() const = 0;
};

/// The log files in `folder`; reads the buffers with these names.
[[nodiscard]] std::unique_ptr<Source> MakeFileSource(const std::string& folder,
                                                     const std::vector<std::string>& buffers);

/// The journal in /run/log and /var/log below `root` since the machine was started. Of a log buffer, or of
/// every buffer when `buffers` names both of them; then a tag that is asked for is found wherever it was
/// logged. Null when the journal cannot be opened.
[[nodiscard]] std::unique_ptr<Source> MakeJournalSource(const std::string& root,
                                                        const std::vector<std::string>& buffers,
                                                        const std::vector<std::string>& tags);

/// The journal where there is one (below ZOL_ROOT when it is set), else the log files; for the rest see
/// above. Null when the journal cannot be opened.
[[nodiscard]] std::unique_ptr<Source> OpenLog(const std::vector<std::string>& buffers,
                                              const std::vector<std::string>& tags);

/// Waits for input on `fd` or `stop`. False when the reader of the standard output is gone.
[[nodiscard]] bool WaitForInput(int fd, int stop, int timeoutMs);

}  // namespace dlogutil
