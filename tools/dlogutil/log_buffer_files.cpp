#include "log_buffer_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "base/unique_fd.h"

namespace dlogutil {
namespace {

constexpr int kOldFiles = 2;
constexpr std::string_view kEnd = ".log";
// A line is some 4200 bytes at most; whatever is longer is none of ours.
constexpr std::size_t kMaxLine = 65536;

}  // namespace

/// One open log file and how far it has been read.
class LogBufferFiles::File {
public:
    explicit File(const std::string& path) : m_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        if (m_fd && fstat(m_fd.Get(), &m_status) != 0) {
            m_fd.Reset();
        }
    }

    bool IsOpen() const { return static_cast<bool>(m_fd); }
    bool Same(const File& other) const {
        return m_status.st_dev == other.m_status.st_dev && m_status.st_ino == other.m_status.st_ino;
    }

    /// The next whole line, without its end; false when there is none yet.
    bool ReadLine(std::string* out) {
        for (;;) {
            const std::size_t end = m_pending.find('\n', m_begin);
            if (end != std::string::npos) {
                out->assign(m_pending, m_begin, end - m_begin);
                m_begin = end + 1;
                return true;
            }
            m_pending.erase(0, m_begin);
            m_begin = 0;
            if (m_pending.size() > kMaxLine) {
                m_pending.clear();
            }
            std::array<char, 16384> buffer;
            const ssize_t length = read(m_fd.Get(), buffer.data(), buffer.size());
            if (length <= 0) {
                return false;
            }
            m_pending.append(buffer.data(), static_cast<std::size_t>(length));
        }
    }

private:
    base::UniqueFd m_fd;
    struct stat m_status {};
    std::string m_pending;  // read and not yet returned
    std::size_t m_begin = 0;
};

LogBufferFiles::LogBufferFiles(std::string path) : m_path(std::move(path)) {}
LogBufferFiles::~LogBufferFiles() = default;
LogBufferFiles::LogBufferFiles(LogBufferFiles&&) noexcept = default;

void LogBufferFiles::Discover() {
    // Newest first: a file that is renamed while this looks is met again under its older name, not missed.
    std::vector<std::unique_ptr<File>> found;
    const std::string stem = m_path.substr(0, m_path.size() - kEnd.size());
    for (int age = 0; age <= kOldFiles; ++age) {
        auto file =
            std::make_unique<File>(age == 0 ? m_path : stem + "." + std::to_string(age) + std::string(kEnd));
        const auto isThis = [&](const std::unique_ptr<File>& other) { return other->Same(*file); };
        if (!file->IsOpen() || std::any_of(found.begin(), found.end(), isThis)) {
            continue;
        }
        if (std::any_of(m_files.begin(), m_files.end(), isThis)) {
            break;
        }
        found.push_back(std::move(file));
    }
    for (auto file = found.rbegin(); file != found.rend(); ++file) {
        m_files.push_back(std::move(*file));
    }
}

const Record* LogBufferFiles::Peek() {
    if (m_hasNext) {
        return &m_next;
    }
    // A writer may still finish a line in a file that has been turned over: the older ones are asked, too.
    for (const std::unique_ptr<File>& file : m_files) {
        for (std::string line; file->ReadLine(&line);) {
            if (ParseLine(line, &m_next)) {
                m_hasNext = true;
                return &m_next;
            }
        }
    }
    while (m_files.size() > kOldFiles + 1) {
        m_files.pop_front();
    }
    return nullptr;
}

void LogBufferFiles::Pop() {
    m_hasNext = false;
}

}  // namespace dlogutil
