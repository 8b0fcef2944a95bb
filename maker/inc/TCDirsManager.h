#pragma once
/// The system's own folders.
#include <string>

struct TCDirsManager {
    /// Makes the folder of persistent state (ZOL_PATH_STATE_DIR). A failure is logged; later steps report
    /// what they miss. An interruption point: throws boost::thread_interrupted in an interrupted thread.
    static void Initialize();

    /// Device path of the stored policy (ZOL_PATH_POLICY).
    static std::string GetPolicyXmlPath();
};
