#include "uploads.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <utility>

#include "base/exception_wall.h"
#include "text.h"
#include "upload_status.h"

namespace collector {
namespace {

using reports::Outcome;

/// What a process said last, on one line.
std::string ReadOutput(int pipe) {
    std::array<char, 4096> text{};
    const ssize_t length = pipe >= 0 ? read(pipe, text.data(), text.size()) : 0;
    std::string line(text.data(), static_cast<std::size_t>(length > 0 ? length : 0));
    line.erase(line.find_last_not_of('\n') + 1);
    return tools::OneLine(line);
}

}  // namespace

Uploads::Uploads(Spool& spool, std::vector<std::string> command, RetryDelay delay,
                 std::function<void(const std::string&)> say)
    : m_spool(spool), m_command(std::move(command)), m_delay(std::move(delay)), m_say(std::move(say)) {}

void Uploads::Wake() {
    if (m_entry || m_timer != nullptr) {
        return;
    }
    const Entry* const first = m_spool.First(m_passedOver);
    if (first == nullptr) {
        if (!m_passedOver.empty()) {
            m_passedOver.clear();
            WakeLater(0);
        }
        return;
    }
    std::optional<Entry> entry(*first);
    if (Start(*entry)) {
        m_entry = std::move(entry);
    }
}

bool Uploads::Start(const Entry& entry) {
    std::vector<std::string> words = m_command;
    words.push_back(m_spool.PathOf(entry));
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    base::GErrorPtr error;
    int output = -1;
    GPid child = 0;
    if (g_spawn_async_with_pipes(nullptr, pointers.data(), nullptr, G_SPAWN_DO_NOT_REAP_CHILD, nullptr,
                                 nullptr, &child, nullptr, &output, nullptr,
                                 base::OutError(error)) == FALSE) {
        TryAgain(0, base::ErrorText(error.get()));
        return false;
    }
    m_output.Reset(output);
    m_ended.reset(g_child_watch_source_new(child));
    g_source_set_callback(m_ended.get(), G_SOURCE_FUNC(EndedCb), this, nullptr);
    g_source_attach(m_ended.get(), nullptr);
    return true;
}

void Uploads::EndedCb(GPid /*child*/, gint status, gpointer self) {
    auto* const uploads = static_cast<Uploads*>(self);
    base::CatchAll([=] { uploads->Ended(status); }, [=](const char* why) { uploads->TryAgain(0, why); });
}

void Uploads::Ended(int waitStatus) {
    const Entry entry = *std::exchange(m_entry, std::nullopt);
    const std::string said = ReadOutput(m_output.Get());
    m_output.Reset();
    const std::size_t blank = said.find(' ');
    const std::string reason = blank != std::string::npos ? said.substr(blank + 1) : said;
    const int status = WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -1;
    Outcome outcome;
    if (status == upload::EXIT_DONE) {
        outcome = m_spool.Remove(entry);
    } else if (status == upload::EXIT_REFUSED) {
        m_say("refused by the server: " + entry.name + ": " + reason);
        outcome = m_spool.Refuse(entry);
    } else if (status == upload::EXIT_REPORT) {
        PassOver(entry.name, reason);
        return;
    } else {
        TryAgain(std::strtoull(said.c_str(), nullptr, 10), reason.empty() ? "zol_upload failed" : reason);
        return;
    }
    if (outcome) {
        TryAgain(0, outcome.text);
        return;
    }
    if (!std::exchange(m_complaint, "").empty()) {
        m_say("uploads go on");
    }
    m_delay.Reset();
    Wake();
}

void Uploads::TryAgain(std::uint64_t wishSeconds, const std::string& why) {
    if (why != m_complaint) {
        m_say("not uploaded, tried again later: " + why);
        m_complaint = why;
    }
    WakeLater(wishSeconds);
}

void Uploads::PassOver(const std::string& name, const std::string& why) {
    m_passedOver.insert(name);
    if (m_unreadable.insert(name).second) {
        m_say("cannot be read, tried again behind the others: " + name + ": " + why);
    }
    Wake();
}

void Uploads::WakeLater(std::uint64_t wishSeconds) {
    m_timer = base::StartTimer(nullptr, static_cast<unsigned>(m_delay.Next(wishSeconds)), [this] {
        m_timer.reset();
        base::CatchAll([this] { Wake(); }, [this](const char* what) { TryAgain(0, what); });
    });
}

}  // namespace collector
