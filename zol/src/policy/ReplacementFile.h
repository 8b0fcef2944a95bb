#pragma once
/// A file that takes another's place whole or not at all.
#include <sys/types.h>

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>

namespace zol {

/// Writes "<path>.new" beside the file and moves it over the file at the end, so that a power cut at any
/// moment leaves the old content or the new one. What was not moved is removed. Steps run in the order of
/// their declaration; a step that fails sets errno.
class TCReplacementFile {
public:
    /// @param path device path of the file to replace
    explicit TCReplacementFile(const std::string& path);
    ~TCReplacementFile();
    TCReplacementFile(const TCReplacementFile&) = delete;
    TCReplacementFile& operator=(const TCReplacementFile&) = delete;

    /// Never through a symbolic link. @param mode of a file that is made anew
    bool Open(mode_t mode);
    /// In one go and unbuffered. @return bytes written
    std::size_t Write(const std::string& content);
    /// Needs privilege; without it the owner stays.
    void SetOwner(uid_t user, gid_t group);
    bool Sync();
    bool Close();
    /// Moves the new file over the old one and syncs their folder; a folder that cannot be synced is logged.
    bool Replace();

private:
    struct CloseFile {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    const std::string m_devicePath;
    const std::string m_target;
    const std::string m_temporary;
    std::unique_ptr<std::FILE, CloseFile> m_file;
    bool m_isLeftOver = false;  ///< the temporary file exists and is ours to remove
};

}  // namespace zol
