#include "dlog/log_sinks.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <utility>

#include "device_path.h"
#include "platform_clock.h"

namespace dlog {
namespace {

// What the flash of a television can spare: three files of this size for each buffer.
constexpr base::RotatingFile::Limits kLimits = {std::int64_t{2} * 1024 * 1024, 2};

// A line of the longest message with what stands before it.
constexpr std::size_t kLineBytes = kMaxMessage + 256;

constexpr int kQueueBytes = 8 * 1024 * 1024;

constexpr std::string_view kLetters = "VDIWEF";
constexpr std::array<int, 6> kSyslogPriorities = {LOG_DEBUG,   LOG_DEBUG, LOG_INFO,
                                                  LOG_WARNING, LOG_ERR,   LOG_CRIT};

char Letter(const Message& message) {
    return kLetters[static_cast<std::size_t>(message.level)];
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

JournalSink::JournalSink(const char* bufferName, std::string socketPath)
    : m_buffer(bufferName),
      m_socketPath(std::move(socketPath)),
      m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    // As long a queue as the journal's own clients ask for: a writer waits when it is full.
    setsockopt(m_socket.Get(), SOL_SOCKET, SO_SNDBUF, &kQueueBytes, sizeof(kQueueBytes));
    m_frame.reserve(kLineBytes);
}

void JournalSink::Write(const Message& message) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_frame.clear();
    Add("MESSAGE", message.text);
    Add("PRIORITY", std::to_string(kSyslogPriorities[static_cast<std::size_t>(message.level)]));
    Add("SYSLOG_IDENTIFIER", message.tag);
    Add("DLOG_BUFFER", m_buffer);
    Add("DLOG_PRIORITY", std::string(1, Letter(message)));
    Add("TID", std::to_string(message.thread));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    m_socketPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
    // Nobody can be told when the journal is gone.
    static_cast<void>(sendto(m_socket.Get(), m_frame.data(), m_frame.size(), MSG_NOSIGNAL,
                             reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
}

void JournalSink::Add(std::string_view name, std::string_view value) {
    m_frame.append(name);
    if (value.find('\n') == std::string_view::npos) {
        m_frame.push_back('=');
    } else {
        m_frame.push_back('\n');
        for (unsigned bit = 0; bit < 64; bit += 8) {
            m_frame.push_back(static_cast<char>(std::uint64_t{value.size()} >> bit));
        }
    }
    m_frame.append(value).push_back('\n');
}

}  // namespace dlog
