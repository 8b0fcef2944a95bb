#pragma once
#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "record.h"

namespace dlogutil {

/// The files of one log buffer, read as one stream from the oldest line on: main.2.log, main.1.log, main.log.
/// Stays on the stream when the files are turned over meanwhile.
class LogBufferFiles {
public:
    /// @param path of the newest file; ends in ".log"
    explicit LogBufferFiles(std::string path);
    ~LogBufferFiles();
    LogBufferFiles(LogBufferFiles&&) noexcept;
    LogBufferFiles& operator=(LogBufferFiles&&) = delete;

    /// Finds files that are new since the last time.
    void Discover();

    /// The next record, null when all there is has been read. Valid until Pop.
    const Record* Peek();
    void Pop();

private:
    class File;

    std::string m_path;
    std::deque<std::unique_ptr<File>> m_files;  // oldest first
    Record m_next;
    bool m_hasNext = false;
};

}  // namespace dlogutil
