#include "TCDirsManager.h"

#include <boost/thread/thread.hpp>

#include "MakerLog.h"
#include "TSFileSystem.h"
#include "device_paths.h"

void TCDirsManager::Initialize() {
    boost::this_thread::interruption_point();
    if (!TSFileSystem::MakeDir(ZOL_PATH_STATE_DIR, true)) {
        MAKER_ERROR("no folder for persistent state: %s", ZOL_PATH_STATE_DIR);
    }
}

std::string TCDirsManager::GetPolicyXmlPath() {
    return ZOL_PATH_POLICY;
}
