#include "base/inotify.h"

#include <unistd.h>

#include <array>
#include <cstring>

namespace base {

void Inotify::Read(const std::function<void(const InotifyEvent&)>& handle) {
    alignas(inotify_event) std::array<char, 4096> buffer;
    for (;;) {
        const ssize_t size = read(m_fd.Get(), buffer.data(), buffer.size());
        if (size <= 0) {
            return;
        }
        for (const char* at = buffer.data(); at < buffer.data() + size;) {
            inotify_event event{};
            std::memcpy(&event, at, sizeof(event));
            handle({event.wd, event.mask, event.len > 0 ? at + sizeof(event) : ""});
            at += sizeof(event) + event.len;
        }
    }
}

}  // namespace base
