#include "document.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "ZOLPolicy.h"
#include "base/unique_fd.h"
#include "text.h"

namespace zolctl {
namespace {

using tools::Printable;

const std::string kStandardInput = "-";

Unreadable Because(const std::string& file, int error) {
    return "cannot read " + Printable(file) + ": " + std::strerror(error);
}

Unreadable TooLarge(const std::string& file) {
    return Printable(file) + " is larger than " + std::to_string(zol::kMaxPolicyBytes) + " bytes";
}

/// Block by block: what never ends must not fill the memory first.
Unreadable ReadAll(int fd, const std::string& file, std::string& text) {
    std::array<char, 65536> block;
    text.clear();
    while (text.size() <= zol::kMaxPolicyBytes) {
        const ssize_t length = read(fd, block.data(), block.size());
        if (length == 0) {
            return {};
        }
        if (length > 0) {
            text.append(block.data(), static_cast<std::size_t>(length));
        } else if (errno != EINTR) {
            return Because(file, errno);
        }
    }
    return TooLarge(file);
}

/// Text of 16 bits a character has a mark at its beginning, without which the XML library takes it for bytes.
bool IsBinary(const std::string& text) {
    const std::string mark = text.substr(0, 2);
    return text.find('\0') != std::string::npos && mark != "\xFF\xFE" && mark != "\xFE\xFF";
}

Unreadable ReadRegular(const std::string& file, std::string& text) {
    const base::UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat status {};
    if (!fd || fstat(fd.Get(), &status) != 0) {
        return Because(file, errno);
    }
    if (S_ISDIR(status.st_mode)) {
        return Printable(file) + " is a folder";
    }
    if (!S_ISREG(status.st_mode)) {
        return Printable(file) + " is no regular file; standard input is -";
    }
    return status.st_size > static_cast<off_t>(zol::kMaxPolicyBytes) ? TooLarge(file)
                                                                     : ReadAll(fd.Get(), file, text);
}

}  // namespace

Unreadable ReadDocument(const std::string& file, std::string& text) {
    if (file == kStandardInput) {
        return ReadAll(STDIN_FILENO, file, text);
    }
    const base::UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    return fd ? ReadAll(fd.Get(), file, text) : Because(file, errno);
}

Unreadable ReadRegularDocument(const std::string& file, std::string& text) {
    Unreadable why = file == kStandardInput ? ReadAll(STDIN_FILENO, file, text) : ReadRegular(file, text);
    return why.empty() && IsBinary(text) ? Printable(file) + " holds binary data, no XML document" : why;
}

}  // namespace zolctl
