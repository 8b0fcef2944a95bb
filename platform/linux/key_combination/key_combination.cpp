#include "key_combination.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "context_thread.h"
#include "device_path.h"
#include "device_paths.h"
#include "guarded.h"
#include "key_combination/combinations.h"
#include "key_combination/input_devices.h"
#include "platform_log.h"

namespace platform {

namespace {

constexpr const char* kInputFolder = "/dev/input";

constexpr off_t kLargestTable = 65536;  ///< bytes

/// Reads the table's file. Empty when that went well, else what was wrong.
std::string ReadTable(int file, std::string& text) {
    struct stat status {};
    if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) {
        return "not a regular file";
    }
    if (status.st_size > kLargestTable) {
        return "more than " + std::to_string(kLargestTable) + " bytes";
    }
    text.resize(static_cast<std::size_t>(status.st_size));
    const ssize_t length = pread(file, text.data(), text.size(), 0);
    text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return length < 0 ? std::strerror(errno) : "";
}

std::vector<Combination> LoadCombinations() {
    // Without O_NONBLOCK a pipe in the file's place would hold up the service's start for good.
    const base::UniqueFd file(
        open(DevicePath(ZOL_PATH_KEY_COMBINATIONS).c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file && errno == ENOENT) {
        return DefaultCombinations();
    }
    std::string text;
    const std::string failure = file ? ReadTable(file.Get(), text) : std::strerror(errno);
    if (!failure.empty()) {
        PLATFORM_LOG(ERROR, "%s: %s: the built-in table holds", ZOL_PATH_KEY_COMBINATIONS, failure.c_str());
        return DefaultCombinations();
    }
    std::istringstream table(text);
    std::vector<std::string> complaints;
    std::vector<Combination> combinations = ReadCombinations(table, complaints);
    for (const std::string& complaint : complaints) {
        PLATFORM_LOG(ERROR, "%s: %s", ZOL_PATH_KEY_COMBINATIONS, complaint.c_str());
    }
    return combinations;
}

/// What lies between KeyCombination_Initialize and KeyCombination_Finalize.
class KeyService {
public:
    int Initialize() {
        const std::lock_guard<std::mutex> life(m_life);
        const bool started = m_thread.Start([this] { Begin(); }, [this] { End(); });
        if (started && m_devices.has_value()) {
            m_initialized = true;
            return 0;
        }
        m_thread.Stop();
        return -1;
    }

    int SetList(const int* list, int count) {
        if (list == nullptr || count < 0) {
            return -1;
        }
        const std::lock_guard<std::recursive_mutex> lock(m_mutex);
        for (int id = 0; id < KEY_COMBINATION_COUNT; ++id) {
            m_wanted[static_cast<std::size_t>(id)] = id < count && list[id] == 1;
        }
        return 0;
    }

    int Register(KeyCombination_Handler handler, void* userData) {
        if (handler == nullptr) {
            return -1;
        }
        const std::lock_guard<std::recursive_mutex> lock(m_mutex);
        m_handler = handler;
        m_userData = userData;
        return 0;
    }

    int Delete(KeyCombination_Handler handler) {
        const std::lock_guard<std::recursive_mutex> lock(m_mutex);
        if (handler == nullptr || m_handler != handler) {
            return -1;
        }
        m_handler = nullptr;
        return 0;
    }

    int Finalize() {
        if (m_thread.IsCurrent()) {
            // A handler would wait for its own end.
            return -1;
        }
        const std::lock_guard<std::mutex> life(m_life);
        if (!m_initialized) {
            return -1;
        }
        m_initialized = false;
        m_thread.Stop();
        const std::lock_guard<std::recursive_mutex> lock(m_mutex);
        m_handler = nullptr;
        m_wanted.fill(false);
        return 0;
    }

private:
    void Begin() {
        m_tracker.emplace(LoadCombinations());
        m_devices.emplace(
            kInputFolder,
            InputDevices::Handlers{[this](int device, unsigned key, bool held) { OnKey(device, key, held); },
                                   [this](int device) { m_tracker->Forget(device); }});
        if (!m_devices->Start()) {
            m_devices.reset();
        }
    }
    void End() {
        m_devices.reset();
        m_tracker.reset();
    }

    void OnKey(int device, unsigned key, bool held) {
        for (const KeyComb id : m_tracker->Set(device, key, held)) {
            const std::lock_guard<std::recursive_mutex> lock(m_mutex);
            if (m_handler != nullptr && m_wanted[static_cast<std::size_t>(id)]) {
                m_handler(id, m_userData);
            }
        }
    }

    std::mutex m_life;  ///< starts and stops come one at a time
    bool m_initialized = false;
    std::recursive_mutex m_mutex;  ///< guards the next three; held while the handler runs
    KeyCombination_Handler m_handler = nullptr;
    void* m_userData = nullptr;
    std::array<bool, KEY_COMBINATION_COUNT> m_wanted{};
    std::optional<CombinationTracker> m_tracker;  ///< lives on the thread
    std::optional<InputDevices> m_devices;        ///< lives on the thread
    ContextThread m_thread{"zol-keys"};
};

/// Never destroyed: a handler that was not deleted may still run while the process ends.
KeyService& Service() {
    static auto* const service = new KeyService;
    return *service;
}

}  // namespace

}  // namespace platform

extern "C" {

int KeyCombination_Initialize(void) {
    return platform::GuardedCall("key combinations", [] { return platform::Service().Initialize(); });
}

int KeyCombination_Set_CombinationList(const int* list, int count) {
    return platform::Service().SetList(list, count);
}

int KeyCombination_Register_Handler(KeyCombination_Handler handler, void* user_data) {
    return platform::Service().Register(handler, user_data);
}

int KeyCombination_Delete_Handler(KeyCombination_Handler handler) {
    return platform::Service().Delete(handler);
}

int KeyCombination_Finalize(void) {
    return platform::Service().Finalize();
}
}
