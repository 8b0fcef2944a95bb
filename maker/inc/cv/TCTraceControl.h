#pragma once
/// Control of the tracing library from outside the traced code.
#include <mutex>
#include <string>

#include "cv/TCScopeHandler.h"

namespace cv {

/// Process-wide. Any thread; throws nothing.
class TCTraceControl {
public:
    static constexpr const char* DUMP_NAME = "trace.json";

    /// Those of TCScopeHandler.
    [[nodiscard]] bool IsActive() const { return TCScopeHandler::IsActive(); }
    void SetActive(bool active) { TCScopeHandler::Instance().SetActive(active); }
    int Reload() { return TCScopeHandler::Instance().Reload(); }

    /// Saves the recording as DUMP_NAME, in the Chrome trace-event JSON format, in both folders. They are
    /// device paths and made when they are missing, the destination only where its parent exists (a stick may
    /// be gone), as by TSFileSystem::MakeDir. Each file is replaced whole or not at all.
    /// @param sourceFolder      the library's own folder; written first
    /// @param destinationFolder where the copy goes, such as a USB stick
    /// @param withTraps         not 0: matched traps are saved, too
    /// @param clear             not 0: what was saved is removed from the recording when both are written
    /// @return true when both files are written; otherwise one line in the platform log says why.
    [[nodiscard]] bool SaveDump(const std::string& sourceFolder, const std::string& destinationFolder,
                                int withTraps, int clear);

private:
    std::mutex m_dumpMutex;
};

namespace api {
/// The only control; never null, never freed.
TCTraceControl* GetControl();
}  // namespace api

}  // namespace cv
