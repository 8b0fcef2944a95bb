#include <syslog.h>
#include <systemd/sd-id128.h>
#include <systemd/sd-journal.h>

#include <array>
#include <cstdlib>
#include <string_view>

#include "base/handles.h"
#include "source.h"

namespace dlogutil {
namespace {

using JournalPtr = std::unique_ptr<sd_journal, base::FreeWith<sd_journal_close>>;

std::string Field(sd_journal* journal, const std::string& name) {
    const void* data = nullptr;
    std::size_t length = 0;
    if (sd_journal_get_data(journal, name.c_str(), &data, &length) < 0) {
        return std::string();
    }
    std::string_view field(static_cast<const char*>(data), length);
    field.remove_prefix(name.size() + 1);
    return std::string(field);
}

/// The letter that the log gave, or for what others logged the one that fits best.
char Priority(sd_journal* journal) {
    const std::string letter = Field(journal, "DLOG_PRIORITY");
    if (letter.size() == 1) {
        return letter[0];
    }
    // LOG_EMERG to LOG_DEBUG.
    constexpr std::string_view kLetters = "FFFEWIID";
    const std::string number = Field(journal, "PRIORITY");
    return number.size() == 1 && number[0] >= '0' && number[0] <= '7'
               ? kLetters[static_cast<std::size_t>(number[0] - '0')]
               : 'I';
}

class JournalSource : public Source {
public:
    explicit JournalSource(JournalPtr journal) : m_journal(std::move(journal)) {}

    bool Drain(const std::function<void(const Record&)>& sink) override {
        int more = 0;
        while ((more = sd_journal_next(m_journal.get())) > 0) {
            m_isThere = true;
            sink(Current());
        }
        return more == 0;
    }

    bool Wait(int stop) override {
        const int fd = sd_journal_get_fd(m_journal.get());
        return fd >= 0 && WaitForInput(fd, stop, -1) && sd_journal_process(m_journal.get()) >= 0;
    }

    /// The journal keeps what an account may not read from it as if it were not there.
    std::error_code Missing() const override {
        return m_isThere ? std::error_code() : std::make_error_code(std::errc::no_such_file_or_directory);
    }

private:
    Record Current() const {
        sd_journal* const journal = m_journal.get();
        Record record;
        record.priority = Priority(journal);
        record.tag = Visible(Field(journal, "SYSLOG_IDENTIFIER"));
        record.pid = Field(journal, "_PID");
        record.tid = Field(journal, "TID");
        if (record.tid.empty()) {
            record.tid = record.pid;
        }
        record.message = Visible(Field(journal, "MESSAGE"));
        std::uint64_t us = 0;
        if (sd_journal_get_realtime_usec(journal, &us) >= 0) {
            record.wallUs = static_cast<std::int64_t>(us);
            record.dateTime = DateTime(record.wallUs);
        }
        sd_id128_t boot{};
        if (sd_journal_get_monotonic_usec(journal, &us, &boot) >= 0) {
            record.steadyUs = static_cast<std::int64_t>(us);
        }
        return record;
    }

    JournalPtr m_journal;
    bool m_isThere = false;
};

/// Matches of the same field add up; those of different fields narrow down.
void Match(sd_journal* journal, const std::string& field, const std::vector<std::string>& values) {
    for (const std::string& value : values) {
        std::string match = field;
        match.append("=").append(value);
        sd_journal_add_match(journal, match.data(), match.size());
    }
}

}  // namespace

std::unique_ptr<Source> MakeJournalSource(const std::string& root, const std::vector<std::string>& buffers,
                                          const std::vector<std::string>& tags) {
    sd_journal* raw = nullptr;
    if (sd_journal_open_directory(&raw, root.c_str(), SD_JOURNAL_OS_ROOT) < 0) {
        return nullptr;
    }
    JournalPtr journal(raw);
    // A journal that outlives power-off holds earlier boots, whose monotonic times mean nothing beside these.
    sd_id128_t boot{};
    if (sd_id128_get_boot(&boot) < 0) {
        return nullptr;
    }
    std::array<char, SD_ID128_STRING_MAX> bootId{};
    Match(raw, "_BOOT_ID", {sd_id128_to_string(boot, bootId.data())});
    Match(raw, "SYSLOG_IDENTIFIER", tags);
    if (buffers.size() == 1 || tags.empty()) {
        Match(raw, "DLOG_BUFFER", buffers);
    }
    // The descriptor must be there before the first entries are read, or those in between wake nobody.
    sd_journal_get_fd(raw);
    if (sd_journal_seek_head(raw) < 0) {
        return nullptr;
    }
    return std::make_unique<JournalSource>(std::move(journal));
}

}  // namespace dlogutil
