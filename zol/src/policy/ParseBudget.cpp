#include "ParseBudget.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace zol {
namespace {

/// What an item takes beside its texts, rounded up.
constexpr std::size_t kItemBytes = 160;
/// What an attribute is charged beside its texts. The attributes of all elements share their memory; the
/// charge, which stays, bounds the work that defaulted attributes can make of small elements.
constexpr std::size_t kAttributeBytes = 16;

/// What expat keeps of an element for as long as it is open.
std::size_t OpenElementBytes(const char* name) {
    constexpr std::size_t kBesideTheName = 128;
    return kBesideTheName + std::strlen(name);
}

// expat copies the text, keeps every name that it has met, and takes in all attributes of a tag before it
// calls anybody. None of that can be charged, so what it allocates is bounded instead. Its functions get no
// context.
thread_local std::size_t t_expatBytes = 0;

void FreeForExpat(void* block) {
    t_expatBytes -= malloc_usable_size(block);
    std::free(block);
}

void* ReallocateForExpat(void* block, std::size_t size) {
    const std::size_t others = t_expatBytes - malloc_usable_size(block);
    if (size > kMaxExpatBytes - std::min(others, kMaxExpatBytes)) {
        return nullptr;
    }
    void* moved = std::realloc(block, size);
    if (moved != nullptr) {
        t_expatBytes = others + malloc_usable_size(moved);
    }
    return moved;
}

void* AllocateForExpat(std::size_t size) {
    return ReallocateForExpat(nullptr, size);
}

}  // namespace

bool TCParseBudget::Charge(std::size_t bytes) {
    m_bytes += bytes;
    return m_bytes <= kMaxRecordBytes;
}

bool TCParseBudget::OpenElement(const char* name) {
    return Charge(OpenElementBytes(name));
}

void TCParseBudget::CloseElement(const char* name) {
    m_bytes -= OpenElementBytes(name);
}

bool TCParseBudget::AddAttribute(std::size_t bytes) {
    return ++m_attributes <= kMaxAttributes && Charge(kAttributeBytes + bytes);
}

bool TCParseBudget::AddItem() {
    return Charge(kItemBytes);
}

XmlParserPtr CreateBoundedParser() {
    const XML_Memory_Handling_Suite bounded{&AllocateForExpat, &ReallocateForExpat, &FreeForExpat};
    return XmlParserPtr(XML_ParserCreate_MM(nullptr, &bounded, nullptr));
}

}  // namespace zol
