#include "cv/TCTraceControl.h"

#include <system_error>

#include "MakerLog.h"
#include "TSFileSystem.h"
#include "TraceJson.h"
#include "base/atomic_file.h"
#include "base/exception_wall.h"
#include "cv/TCScopeHandler.h"
#include "cv/TCTrapPattern.h"
#include "device_path.h"
#include "platform_clock.h"

namespace cv {
namespace {

constexpr mode_t kFileMode = 0644;  // testers copy it as any user

/// Everything recorded up to one moment.
struct Snapshot {
    TSDump dump;
    std::uint64_t eventsEnd = 0;
    std::uint64_t matchesEnd = 0;
};

Snapshot Take(bool withTraps) {
    Snapshot snapshot;
    TSDump& dump = snapshot.dump;
    dump.events = TCScopeHandler::Instance().Items(&snapshot.eventsEnd);
    dump.overwritten = TCScopeHandler::Instance().Lost();
    if (withTraps) {
        dump.matches = TCTrapPattern::Instance().Items(&snapshot.matchesEnd);
        dump.dropped = TCTrapPattern::Instance().Lost();
    }
    platform_time_t now{};
    platform_clock_realtime(&now);
    dump.wallSeconds = now.seconds;
    dump.steadyNs = platform_clock_steady_ns();
    return snapshot;
}

bool WriteInto(const std::string& folder, bool withParents, const std::string& text) {
    const std::string path =
        folder + (folder.empty() || folder.back() != '/' ? "/" : "") + TCTraceControl::DUMP_NAME;
    if (!TSFileSystem::MakeDir(folder, withParents)) {
        MAKER_ERROR("the trace dump cannot be saved in %s", folder.c_str());
        return false;
    }
    const std::error_code error = base::ReplaceFile(DevicePath(path), text, kFileMode);
    if (error) {
        MAKER_ERROR("the trace dump cannot be saved in %s: %s", folder.c_str(), error.message().c_str());
    }
    return !error;
}

}  // namespace

bool TCTraceControl::SaveDump(const std::string& sourceFolder, const std::string& destinationFolder,
                              int withTraps, int clear) {
    const std::lock_guard<std::mutex> lock(m_dumpMutex);
    const auto save = [&] {
        const Snapshot snapshot = Take(withTraps != 0);
        const std::string text = TraceJson(snapshot.dump);
        // Where a stick was unplugged, its mount point must not be made anew on the internal flash.
        if (!WriteInto(sourceFolder, true, text) || !WriteInto(destinationFolder, false, text)) {
            return false;
        }
        if (clear != 0) {
            TCScopeHandler::Instance().DiscardBefore(snapshot.eventsEnd);
            TCTrapPattern::Instance().DiscardBefore(snapshot.matchesEnd);
        }
        return true;
    };
    return base::CatchAll(save,
                          [](const char* why) { MAKER_ERROR("the trace dump cannot be saved: %s", why); });
}

namespace api {

TCTraceControl* GetControl() {
    static TCTraceControl control;
    return &control;
}

}  // namespace api
}  // namespace cv
