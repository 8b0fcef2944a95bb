#pragma once
#include <functional>
#include <string>

#include "base/backoff.h"
#include "base/glib_handles.h"
#include "base/subscription.h"
#include "outcome.h"
#include "report_root.h"
#include "spool.h"
#include "vconf.h"

namespace collector {

/// Takes reports into the spool as they are published. Once the key has been empty for a while nothing is in
/// line, and what then lies there and was not taken is what nobody will be told of any more: it is taken,
/// too. There is a timer only while something is to be done. On the thread of GLib's default main context.
class Collector {
public:
    /// @param settleSeconds how long the key must have been empty
    /// @param say told what happens, one line each; a fault that lasts is one line
    /// @param onTaken called after each new report
    Collector(Spool& spool, unsigned settleSeconds, std::function<void(const std::string&)> say,
              std::function<void()> onTaken);
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;

    /// Watches the key and takes what is published already. False with errno when the key store refuses this
    /// account.
    [[nodiscard]] bool Start();

private:
    static void KeyChangedCb(keynode_t* node, void* self);
    void HandleKey();
    void TakePublished(const std::string& path);
    [[nodiscard]] reports::Outcome Take(const reports::ReportRoot& root, const std::string& name);
    void LookAfter(unsigned milliseconds);
    void Look();
    [[nodiscard]] reports::Outcome TakeLying(const reports::ReportRoot& root, const std::string& name);
    void TryAgain(std::string& complaint, const std::string& why);
    void Succeeded(std::string& complaint);

    Spool& m_spool;
    const unsigned m_settleMs;
    const std::function<void(const std::string&)> m_say;
    const std::function<void()> m_onTaken;
    base::Backoff m_backoff;
    std::string m_keyComplaint;   ///< the fault of what is published that lasts; empty for none
    std::string m_lookComplaint;  ///< that of what was left lying
    bool m_isMoreToCome = false;
    base::GSourcePtr m_timer;    ///< of the next look or attempt; null while nothing is to be done
    base::Subscription m_watch;  ///< last, and so withdrawn before the rest goes
};

}  // namespace collector
