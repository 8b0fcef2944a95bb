#include "dlog/log_sinks.h"

// Where in this file a line was sent from is of no use to its reader.
#define SD_JOURNAL_SUPPRESS_LOCATION

#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>

#include "device_path.h"
#include "platform_clock.h"

namespace dlog {
namespace {

// What the flash of a television can spare: three files of this size for each buffer.
constexpr base::RotatingFile::Limits kLimits = {std::int64_t{2} * 1024 * 1024, 2};

// A line of the longest message with what stands before it.
constexpr std::size_t kLineBytes = kMaxMessage + 256;

constexpr std::string_view kLetters = "VDIWEF";
constexpr std::array<int, 6> kSyslogPriorities = {LOG_DEBUG,   LOG_DEBUG, LOG_INFO,
                                                  LOG_WARNING, LOG_ERR,   LOG_CRIT};

char Letter(const Message& message) {
    return kLetters[static_cast<std::size_t>(message.level)];
}

iovec Field(std::string_view text) {
    return {const_cast<char*>(text.data()), text.size()};
}

}  // namespace

LineFormatter::LineFormatter() {
    m_line.reserve(kLineBytes);
}

std::string_view LineFormatter::Format(const Message& message) {
    m_line.assign(m_stamp.Of(message.time.tv_sec, message.time.tv_nsec)).push_back(' ');
    m_line.push_back(Letter(message));
    m_line.push_back('/');
    AppendVisible(message.tag);
    m_line.push_back('(');
    AppendNumber(message.process);
    m_line.push_back(':');
    AppendNumber(message.thread);
    m_line.append("): ");
    AppendVisible(message.text);
    m_line.push_back('\n');
    return m_line;
}

void LineFormatter::AppendNumber(int number) {
    std::array<char, 12> digits;
    const char* end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    m_line.append(digits.data(), static_cast<std::size_t>(end - digits.data()));
}

void LineFormatter::AppendVisible(std::string_view text) {
    if (!base::HasControls(text)) {
        m_line.append(text);
        return;
    }
    constexpr const char* kDigits = "0123456789abcdef";
    for (const char character : text) {
        const auto code = static_cast<unsigned char>(character);
        if (code == '\n') {
            m_line.append("\\n");
        } else if ((code < 0x20 && code != '\t') || code == 0x7f) {
            m_line.append("\\x").push_back(kDigits[code >> 4]);
            m_line.push_back(kDigits[code & 0xf]);
        } else {
            m_line.push_back(character);
        }
    }
}

FileSink::FileSink(const std::string& path)
    : m_file({DevicePath("/"), path}, kLimits, platform_clock_steady_ns,
             [path](const char* what, const std::error_code& error) {
                 std::fprintf(stderr, "log file %s %s: %s\n", path.c_str(), what, error.message().c_str());
             }) {}

void FileSink::Write(const Message& message) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_file.Write(m_formatter.Format(message));
}

void TerminalSink::Write(const Message& message) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const std::string_view line = m_formatter.Format(message);
    // Nobody can be told when the terminal is gone.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

JournalSink::JournalSink(const char* bufferName) : m_buffer(std::string("DLOG_BUFFER=") + bufferName) {
    m_text.reserve(kLineBytes);
}

void JournalSink::Write(const Message& message) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_text.assign("MESSAGE=").append(message.text);
    m_tag.assign("SYSLOG_IDENTIFIER=").append(message.tag);
    const int priority = kSyslogPriorities[static_cast<std::size_t>(message.level)];
    // Short enough to need no memory of the heap's.
    const std::string priorityField = "PRIORITY=" + std::to_string(priority);
    std::array<char, 15> letter = {"DLOG_PRIORITY="};
    letter.back() = Letter(message);
    const std::string threadField = "TID=" + std::to_string(message.thread);
    const std::array<iovec, 6> fields = {Field(m_text),
                                         Field(priorityField),
                                         Field(m_tag),
                                         Field(m_buffer),
                                         Field({letter.data(), letter.size()}),
                                         Field(threadField)};
    sd_journal_sendv(fields.data(), static_cast<int>(fields.size()));
}

}  // namespace dlog
