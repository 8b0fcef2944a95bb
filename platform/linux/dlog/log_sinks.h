#pragma once
#include <sys/types.h>

#include <cstddef>
#include <ctime>
#include <mutex>
#include <string>
#include <string_view>

#include "base/log_text.h"
#include "base/rotating_file.h"
#include "base/unique_fd.h"
#include "device_paths.h"

namespace dlog {

/// Bytes of the longest message, the ending zero included.
constexpr std::size_t kMaxMessage = 4096;

/// One message of one thread.
struct Message {
    int level;  ///< 0 for verbose to 5 for fatal
    std::string_view tag;
    std::string_view text;
    timespec time;
    pid_t process;
    pid_t thread;
};

/// Where messages go. Any thread.
class Sink {
public:
    Sink() = default;
    virtual ~Sink() = default;
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    virtual void Write(const Message& message) = 0;
};

/// Makes lines: "<date time> <P>/<TAG>(<pid>:<tid>): <message>" in local time with milliseconds. Control
/// characters become visible escapes, so that a message stays on its line. Not thread-safe.
class LineFormatter {
public:
    LineFormatter();
    /// The line with its end; valid until the next call. Needs no memory but for one with many escapes.
    std::string_view Format(const Message& message);

private:
    void AppendNumber(int number);
    void AppendVisible(std::string_view text);

    base::LocalStamp m_stamp;
    std::string m_line;
};

/// Writes lines to a file, each at once.
class FileSink : public Sink {
public:
    /// @param path host path, ends in ".log"
    explicit FileSink(const std::string& path);
    void Write(const Message& message) override;

private:
    std::mutex m_mutex;  // guards what follows
    LineFormatter m_formatter;
    base::RotatingFile m_file;
};

/// Writes lines to the standard error.
class TerminalSink : public Sink {
public:
    void Write(const Message& message) override;

private:
    std::mutex m_mutex;  // guards what follows
    LineFormatter m_formatter;
};

/// Sends messages to the journal: the tag as SYSLOG_IDENTIFIER, the buffer's name as DLOG_BUFFER, the
/// priority's letter as DLOG_PRIORITY.
class JournalSink : public Sink {
public:
    explicit JournalSink(const char* bufferName, std::string socketPath = ZOL_PATH_JOURNAL_SOCKET);
    void Write(const Message& message) override;

private:
    void Add(std::string_view name, std::string_view value);

    const std::string m_buffer;
    const std::string m_socketPath;
    const base::UniqueFd m_socket;
    std::mutex m_mutex;   // guards what follows
    std::string m_frame;  // in the journal's native protocol
};

}  // namespace dlog
