#pragma once
#include <spdlog/formatter.h>
#include <spdlog/sinks/base_sink.h>

#include <cstddef>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "dlog/log_file.h"

namespace dlog {

/// Bytes of the longest message, the ending zero included.
constexpr std::size_t kMaxMessage = 4096;

/// Letter of a priority, kept in spdlog's levels trace to critical: V D I W E F.
char PriorityLetter(spdlog::level::level_enum level);

/// Appends the text so that it stays on its line: control characters become visible escapes.
void AppendVisible(std::string_view text, spdlog::memory_buf_t& out);

/// "<date time> <P>/<TAG>(<pid>:<tid>): <message>" in local time with milliseconds. The tag is the message's
/// logger name. Each sink has its own, guarded by the sink's lock.
class LineFormatter : public spdlog::formatter {
public:
    void format(const spdlog::details::log_msg& message, spdlog::memory_buf_t& out) override;
    std::unique_ptr<spdlog::formatter> clone() const override;

private:
    std::time_t m_second = -1;  // that m_stamp shows
    std::string m_stamp;
};

/// Writes lines to a file, each at once.
class FileSink : public spdlog::sinks::base_sink<std::mutex> {
public:
    explicit FileSink(const std::string& path);

protected:
    void sink_it_(const spdlog::details::log_msg& message) override;
    void flush_() override {}

private:
    LogFile m_file;
    spdlog::memory_buf_t m_line;  // kept, as are those below, so that no line needs memory
};

/// Sends messages to the journal: the tag as SYSLOG_IDENTIFIER, the buffer's name as DLOG_BUFFER, the
/// priority's letter as DLOG_PRIORITY.
class JournalSink : public spdlog::sinks::base_sink<std::mutex> {
public:
    explicit JournalSink(const char* bufferName);

protected:
    void sink_it_(const spdlog::details::log_msg& message) override;
    void flush_() override {}

private:
    const char* const m_bufferName;
    spdlog::memory_buf_t m_message;
};

}  // namespace dlog
