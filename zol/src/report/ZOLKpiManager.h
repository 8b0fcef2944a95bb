#pragma once
/// The identifiers that every report carries, and the way to the maker's KPI event log.
#include <array>
#include <string>

/// Positions of TCKpiManager::Get.
enum EKpiIndex {
    KPI_HWDUID = 0,        ///< hardware identifier of the device, at most 13 characters
    KPI_TGID = 1,          ///< global unique identifier of the device, at most 36 bytes, line feed included
    KPI_LCID = 2,          ///< life-cycle identifier, at most 10 bytes, line feed included
    KPI_EVID = 3,          ///< identifier of the event: wall-clock seconds since 1970
    KPI_CHIP_ID = 4,       ///< four words of eight hexadecimal digits, joined by underscores
    KPI_RESERVED = 5,      ///< always empty
    KPI_RELEASE_MODE = 6,  ///< "REL" or "DEV"
    KPI_SHOP_MODE = 7,     ///< "y" or "n"
    KPI_COUNT = 8
};

/// An identifier that could not be read is "NULL"; one that was never asked for is empty. Not thread-safe:
/// one thread at a time uses an instance (the notify task its own).
class TCKpiManager {
public:
    TCKpiManager();

    /// Reads HWDUID, tgid, lcid and evid anew. Blocks for up to 30 ms when the tgid cannot be read.
    void GetAllInformation();
    /// The identifier at `index` (EKpiIndex); "NULL" for any other number.
    std::string Get(int index) const;
    /// Stores one event in the event log, with its text on flash when this returns. False when the log
    /// refused it; it is not tried again. The strings must not be null.
    [[nodiscard]] bool SendKPI(const char* type, const char* category, const char* eventId,
                               const std::string& description);

    /// Each reads its identifier anew.
    void m_GetHWDuid();
    void m_GetTgid();
    void m_GetLcid();
    void m_GetEvid();
    void m_GetChipId();
    /// "REL" or "DEV" for the first caller in the life of the process, "NULL" for every later call.
    void m_IsReleaseMode();
    /// A number other than 0 and 1 leaves the identifier as it is.
    void m_IsShopMode();
    std::string m_IntToString(int number) const;

private:
    std::array<std::string, KPI_COUNT> m_information;
};
