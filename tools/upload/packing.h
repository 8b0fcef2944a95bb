#pragma once
#include <string>
#include <system_error>

namespace upload {

/// A folder for the packed files of one upload, which goes with all it holds. One at a time in a parent: what
/// an upload that was killed has left there goes, too.
class Scratch {
public:
    /// @param parent a folder of this account
    explicit Scratch(const std::string& parent);
    ~Scratch();
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    /// Empty when it could not be made.
    [[nodiscard]] const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};

/// Packs an opened file into a new one, as gzip does, block by block. The same bytes give the same bytes. One
/// that cannot be packed whole leaves nothing.
[[nodiscard]] std::error_code Pack(int from, const std::string& to);

}  // namespace upload
