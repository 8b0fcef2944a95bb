#pragma once
/// What a document may take of memory and time while it is parsed, so that a hostile one of a few bytes
/// cannot take all there is.
#include <expat.h>

#include <cstddef>
#include <memory>
#include <type_traits>

#include "ZOLPolicy.h"
#include "base/handles.h"

namespace zol {

/// The most entity and attribute declarations that a document's own DTD may make. It bounds how deep the
/// expansion of entities inside entities can go.
constexpr int kMaxDeclarations = 100;

/// The most attributes that one element may have, those that the DTD gives it included.
constexpr int kMaxAttributes = 1000;

/// The most that attributes, items and open elements may be charged together, in bytes.
constexpr std::size_t kMaxRecordBytes = 2 * kMaxPolicyBytes;

/// The most memory that expat may hold on one thread, in bytes.
constexpr std::size_t kMaxExpatBytes = 4 * kMaxPolicyBytes;

/// Counts what is read of one document. What has been read may take more memory than the text: defaulted
/// attributes, which expat's own limit on expansion does not count, items with few attributes or none, and
/// elements inside elements. Each is charged one number, so that every machine takes the same policies.
///
/// Operations that return a bool answer whether the document is still within its budget.
class TCParseBudget {
public:
    [[nodiscard]] bool OpenElement(const char* name);
    /// Gives back what the element was charged when it was opened.
    void CloseElement(const char* name);
    /// What follows belongs to another element.
    void BeginAttributes() { m_attributes = 0; }
    /// @param bytes of its name and value
    [[nodiscard]] bool AddAttribute(std::size_t bytes);
    [[nodiscard]] bool AddItem();
    [[nodiscard]] bool AddDeclaration() { return ++m_declarations <= kMaxDeclarations; }

private:
    bool Charge(std::size_t bytes);

    std::size_t m_bytes = 0;
    int m_attributes = 0;
    int m_declarations = 0;
};

using XmlParserPtr = std::unique_ptr<std::remove_pointer_t<XML_Parser>, base::FreeWith<XML_ParserFree>>;

/// A parser whose own memory is bounded to kMaxExpatBytes; beyond that it reports that memory ran out. It
/// lives and dies on one thread. Null when there is no memory for it.
[[nodiscard]] XmlParserPtr CreateBoundedParser();

}  // namespace zol
