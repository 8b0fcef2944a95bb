#include "dlog/log_sinks.h"

// Where in this file a line was sent from is of no use to its reader.
#define SD_JOURNAL_SUPPRESS_LOCATION

#include <spdlog/details/os.h>
#include <spdlog/fmt/fmt.h>
#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>

#include <array>
#include <chrono>

namespace dlog {
namespace {

// What the flash of a television can spare: three files of this size for each buffer.
constexpr std::int64_t kMaxFileBytes = std::int64_t{2} * 1024 * 1024;

// A line of the longest message with what stands before it. One with many escapes makes the buffer grow once.
constexpr std::size_t kLineBytes = kMaxMessage + 256;

constexpr const char* kLetters = "VDIWEF";
constexpr std::array<int, 6> kSyslogPriorities = {LOG_DEBUG,   LOG_DEBUG, LOG_INFO,
                                                  LOG_WARNING, LOG_ERR,   LOG_CRIT};

std::size_t LevelIndex(spdlog::level::level_enum level) {
    return static_cast<std::size_t>(level) < kSyslogPriorities.size() ? static_cast<std::size_t>(level) : 0;
}

void Append(std::string_view text, spdlog::memory_buf_t& out) {
    out.append(text.data(), text.data() + text.size());
}

}  // namespace

char PriorityLetter(spdlog::level::level_enum level) {
    return kLetters[LevelIndex(level)];
}

void AppendVisible(std::string_view text, spdlog::memory_buf_t& out) {
    constexpr const char* kDigits = "0123456789abcdef";
    for (const char character : text) {
        const auto code = static_cast<unsigned char>(character);
        if (code == '\n') {
            Append("\\n", out);
        } else if ((code < 0x20 && code != '\t') || code == 0x7f) {
            Append("\\x", out);
            out.push_back(kDigits[code >> 4]);
            out.push_back(kDigits[code & 0xf]);
        } else {
            out.push_back(character);
        }
    }
}

void LineFormatter::format(const spdlog::details::log_msg& message, spdlog::memory_buf_t& out) {
    const auto sinceEpoch = message.time.time_since_epoch();
    const std::time_t second = std::chrono::system_clock::to_time_t(message.time);
    if (second != m_second) {
        std::tm local{};
        localtime_r(&second, &local);
        std::array<char, 32> stamp;
        m_stamp.assign(stamp.data(), strftime(stamp.data(), stamp.size(), "%Y-%m-%d %H:%M:%S", &local));
        m_second = second;
    }
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count() % 1000;
    fmt::format_to(std::back_inserter(out), "{}.{:03} {}/", m_stamp, milliseconds < 0 ? 0 : milliseconds,
                   PriorityLetter(message.level));
    AppendVisible({message.logger_name.data(), message.logger_name.size()}, out);
    fmt::format_to(std::back_inserter(out), "({}:{}): ", spdlog::details::os::pid(), message.thread_id);
    AppendVisible({message.payload.data(), message.payload.size()}, out);
    out.push_back('\n');
}

std::unique_ptr<spdlog::formatter> LineFormatter::clone() const {
    return std::make_unique<LineFormatter>();
}

FileSink::FileSink(const std::string& path)
    : base_sink(std::make_unique<LineFormatter>()), m_file(path, kMaxFileBytes) {
    m_line.reserve(kLineBytes);
}

void FileSink::sink_it_(const spdlog::details::log_msg& message) {
    m_line.clear();
    formatter_->format(message, m_line);
    m_file.Write({m_line.data(), m_line.size()});
}

JournalSink::JournalSink(const char* bufferName) : m_bufferName(bufferName) {
    m_message.reserve(kLineBytes);
}

void JournalSink::sink_it_(const spdlog::details::log_msg& message) {
    const auto field = [](spdlog::memory_buf_t& buffer, std::string_view name, auto value) {
        fmt::format_to(std::back_inserter(buffer), "{}={}", name, value);
        return iovec{buffer.data(), buffer.size()};
    };
    m_message.clear();
    std::array<spdlog::memory_buf_t, 5> buffers;
    const std::array<iovec, 6> fields = {
        field(m_message, "MESSAGE", std::string_view(message.payload.data(), message.payload.size())),
        field(buffers[0], "PRIORITY", kSyslogPriorities[LevelIndex(message.level)]),
        field(buffers[1], "SYSLOG_IDENTIFIER",
              std::string_view(message.logger_name.data(), message.logger_name.size())),
        field(buffers[2], "DLOG_BUFFER", m_bufferName),
        field(buffers[3], "DLOG_PRIORITY", PriorityLetter(message.level)),
        field(buffers[4], "TID", message.thread_id)};
    sd_journal_sendv(fields.data(), static_cast<int>(fields.size()));
}

}  // namespace dlog
