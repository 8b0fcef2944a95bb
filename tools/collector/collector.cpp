#include "collector.h"

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

#include "base/exception_wall.h"
#include "hand_over.h"
#include "report.h"
#include "text.h"

namespace collector {
namespace {

using reports::Outcome;
using reports::Problem;

constexpr unsigned kMsPerSecond = 1000;

}  // namespace

Collector::Collector(Spool& spool, unsigned settleSeconds, std::function<void(const std::string&)> say,
                     std::function<void()> onTaken)
    : m_spool(spool),
      m_settleMs(settleSeconds * kMsPerSecond),
      m_say(std::move(say)),
      m_onTaken(std::move(onTaken)) {}

bool Collector::Start() {
    // Before the first read: what is published in between is told.
    m_watch = reports::WatchKey(KeyChangedCb, this);
    if (!m_watch) {
        return false;
    }
    HandleKey();
    return true;
}

void Collector::KeyChangedCb(keynode_t* /*node*/, void* self) {
    auto* const collector = static_cast<Collector*>(self);
    base::CatchAll([=] { collector->HandleKey(); },
                   [=](const char* why) { collector->TryAgain(collector->m_keyComplaint, why); });
}

void Collector::HandleKey() {
    m_timer.reset();
    std::string path;
    if (!reports::ReadPublished(path)) {
        TryAgain(m_keyComplaint, reports::StoreError(errno));
    } else if (!path.empty()) {
        TakePublished(path);
    } else {
        Succeeded(m_keyComplaint);
        LookAfter(m_settleMs);
    }
}

void Collector::TakePublished(const std::string& path) {
    const Outcome outcome = reports::TakePublished(
        path, [this](const reports::ReportRoot& root, const std::string& name) { return Take(root, name); });
    switch (outcome.problem) {
        case Problem::Unreadable:
        case Problem::Unwritable:
        case Problem::Busy:
        case Problem::NoStore:
            TryAgain(m_keyComplaint, outcome.text);
            return;
        case Problem::Missing:
        case Problem::Refused:
            m_say(outcome.text);
            break;
        case Problem::None:
            break;
    }
    // The emptied key is a change, which calls again.
    Succeeded(m_keyComplaint);
    m_backoff.Reset();
}

Outcome Collector::Take(const reports::ReportRoot& root, const std::string& name) {
    bool isNew = false;
    Outcome outcome = m_spool.Take(root, name, isNew);
    if (!outcome && isNew) {
        m_say("taken: " + tools::OneLine(reports::PathOf(name)));
    }
    if (isNew) {
        m_onTaken();  // also when only the mark that it was taken is missing
    }
    return outcome;
}

void Collector::LookAfter(unsigned milliseconds) {
    m_timer = base::StartTimer(nullptr, milliseconds, [this] {
        base::CatchAll([this] { Look(); }, [this](const char* why) { TryAgain(m_lookComplaint, why); });
    });
}

void Collector::Look() {
    m_timer.reset();
    std::string path;
    if (!reports::ReadPublished(path) || !path.empty()) {
        HandleKey();
        return;
    }
    reports::ReportRoot root;
    std::vector<std::string> names;
    Outcome outcome = root.Open();
    if (!outcome) {
        outcome = root.List(names);
    }
    if (outcome && outcome.problem != Problem::Missing) {
        TryAgain(m_lookComplaint, outcome.text);
        return;
    }
    m_spool.ForgetAllBut(names);
    std::sort(names.begin(), names.end());  // of one device, and so by the second that they end in
    m_isMoreToCome = false;
    Outcome unreadable;
    for (const std::string& name : names) {
        outcome = m_spool.WasTaken(root, name) ? Outcome() : TakeLying(root, name);
        if (outcome.problem == Problem::Unwritable) {
            TryAgain(m_lookComplaint, outcome.text);
            return;
        }
        if (outcome.problem == Problem::Unreadable) {
            unreadable = outcome;  // the others need not wait for it
        }
    }
    if (unreadable) {
        TryAgain(m_lookComplaint, unreadable.text);
        return;
    }
    Succeeded(m_lookComplaint);
    m_backoff.Reset();
    if (m_isMoreToCome) {
        LookAfter(m_settleMs);
    }
}

Outcome Collector::TakeLying(const reports::ReportRoot& root, const std::string& name) {
    base::UniqueFd folder;
    reports::Report report;
    Outcome outcome = root.OpenReport(name, folder);
    if (!outcome) {
        outcome = Describe(folder.Get(), name, report);
    }
    if (outcome || !report.header) {
        return outcome;
    }
    if (!reports::IsSettled(report)) {
        m_isMoreToCome = true;
        return {};
    }
    return Take(root, name);
}

void Collector::TryAgain(std::string& complaint, const std::string& why) {
    if (why != complaint) {
        m_say(why);
        complaint = why;
    }
    m_timer = base::StartTimer(nullptr, m_backoff.Next(), [this] {
        base::CatchAll([this] { HandleKey(); }, [this](const char* what) { TryAgain(m_keyComplaint, what); });
    });
}

void Collector::Succeeded(std::string& complaint) {
    if (!std::exchange(complaint, "").empty()) {
        m_say("goes on");
    }
}

}  // namespace collector
