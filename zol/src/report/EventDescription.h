#pragma once
/// The text of a KPI event.
#include <string>

#include "ZOLKpiManager.h"

namespace zol {

/// Items "name=value;" in braces: first the identifiers of the event, then what is added, at the end the
/// default items.
class EventDescription {
public:
    /// The empty items that every description ends with, the closing brace included.
    static constexpr const char* DEFAULT_ITEMS =
        "chip_id=;sn=;series=;platform=;test_step=;micomtv=;micomjp=;is_shop_mode=;checksum=;is_sw_modify=;"
        "serdes_err_accum=;serdes_err_delta=;serdes_reset_accum=;serdes_reset_delta=;"
        "wifi_no_detect_accum=;wifi_no_detect_delta=;wifi_detach_accum=;wifi_detach_delta=;"
        "bt_type=;bt_name=;bt_rssi=;bt_no_detect_accum=;bt_detach_accum=}";

    /// Begins with the tgid, lcid and evid that `identifiers` holds.
    explicit EventDescription(const TCKpiManager& identifiers) {
        Add("tgid", identifiers.Get(KPI_TGID));
        Add("lcid", identifiers.Get(KPI_LCID));
        Add("evid", identifiers.Get(KPI_EVID));
    }

    void Add(const char* name, const std::string& value = "") {
        m_text.append(name).append("=").append(value).append(";");
    }
    /// The description, ended by `defaultItems`.
    [[nodiscard]] std::string EndedBy(const std::string& defaultItems) const { return m_text + defaultItems; }

private:
    std::string m_text = "{";
};

}  // namespace zol
