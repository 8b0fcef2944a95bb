#include "PolicyFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "ZOLPolicy.h"
#include "base/atomic_file.h"
#include "base/glib_handles.h"
#include "base/handles.h"
#include "base/system_error.h"
#include "base/unique_fd.h"
#include "device_path.h"

namespace zol {
namespace {

// The account that the platform's policy service reads the file under.
constexpr uid_t kPolicyUser = 951;
constexpr gid_t kPolicyGroup = 951;
constexpr mode_t kPolicyMode = 0640;

// A folder opens well for reading, and a pipe would block: only a regular file is a policy.
base::FilePtr OpenRegular(const std::string& path, TSPolicyRead& result) {
    base::UniqueFd descriptor(open(DevicePath(path).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!descriptor || fstat(descriptor.Get(), &status) != 0) {
        result.open = base::LastError();
        return nullptr;
    }
    if (!S_ISREG(status.st_mode)) {
        result.open = {S_ISDIR(status.st_mode) ? EISDIR : EINVAL, std::generic_category()};
        return nullptr;
    }
    result.size = status.st_size;
    base::FilePtr file = base::OpenStream(std::move(descriptor), "r");
    result.open = base::ErrorUnless(file != nullptr);
    return file;
}

}  // namespace

std::string DigestOf(const std::string& text) {
    const base::GStringPtr digest(
        g_compute_checksum_for_string(G_CHECKSUM_SHA256, text.data(), static_cast<gssize>(text.size())));
    return digest.get();
}

TSPolicyRead ReadPolicyFile(const std::string& path) {
    TSPolicyRead result;
    const base::FilePtr file = OpenRegular(path, result);
    if (file != nullptr && result.size <= static_cast<std::int64_t>(kMaxPolicyBytes)) {
        result.text.resize(static_cast<std::size_t>(result.size));
        result.text.resize(std::fread(result.text.data(), 1, result.text.size(), file.get()));
    }
    return result;
}

bool IsPassing(const std::error_code& error) {
    const int reason = error.value();
    return reason == EMFILE || reason == ENFILE || reason == ENOMEM || reason == EIO;
}

TSPolicyWrite WritePolicyFile(const std::string& path, const std::string& text) {
    TSPolicyWrite result;
    base::ReplacementFile file(DevicePath(path));
    result.open = file.Open(kPolicyMode);
    if (result.open) {
        return result;
    }
    result.written = file.Write(text);
    static_cast<void>(file.SetOwner(kPolicyUser, kPolicyGroup));  // without privilege the owner stays
    result.sync = file.Sync();
    result.close = file.Close();
    if (result.written == text.size() && !result.sync && !result.close) {
        result.replace = file.Replace();
    }
    return result;
}

}  // namespace zol
