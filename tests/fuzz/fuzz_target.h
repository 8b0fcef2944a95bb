#pragma once
/// What fuzz targets share. A target defines LLVMFuzzerTestOneInput, handles one input in it and ends the
/// process when a result is not what it must be. It starts from the same state each time.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

/// Handles one input. Always 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

/// Ends the process, which the fuzzer takes for a crash, unless `holds`.
inline void Require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "broken: %s\n", what);
        std::abort();
    }
}

/// Reads choices off an input, from its front. An input that is used up goes on with zeros.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : m_next(data), m_end(data + size) {}

    bool IsEmpty() const { return m_next == m_end; }
    unsigned Byte() { return IsEmpty() ? 0 : *m_next++; }
    /// 0 to `limit` - 1; the limit is at most 256.
    unsigned Below(unsigned limit) { return Byte() % limit; }
    /// At most `length` bytes.
    std::string Text(std::size_t length) {
        const std::uint8_t* const begin = m_next;
        m_next += std::min(length, static_cast<std::size_t>(m_end - m_next));
        return std::string(begin, m_next);
    }
    std::string Rest() { return Text(static_cast<std::size_t>(m_end - m_next)); }

private:
    const std::uint8_t* m_next;
    const std::uint8_t* const m_end;
};

}  // namespace fuzz
