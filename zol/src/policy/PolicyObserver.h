#pragma once
/// What TCPolicyParser tells somebody who wants to know where in a document things stand.
#include "ZOLPolicy.h"

namespace zol {

class TCAttributes;

/// A place in a document. Both count from 1; a column is a character.
struct TSPlace {
    unsigned line = 1;
    unsigned column = 1;
};

/// A start tag. Valid during the call only.
struct TSElement {
    TSPlace place;                  ///< of its "<"; for what comes out of an entity, of the reference to it
    const char* name;               ///< as written
    const char* const* attributes;  ///< name and value in turn, as written; ends with null
    const TCAttributes& values;     ///< the same, as they are read
};

/// Why a document is not taken.
enum class EPolicyRefusal {
    MALFORMED,      ///< in the words of the XML library
    TOO_LONG,       ///< more than kMaxPolicyBytes
    BEYOND_BUDGET,  ///< ParseBudget.h
    NO_MEMORY       ///< also when it takes more to read than kMaxExpatBytes
};

/// Is called in the order of the document on the thread that parses. What an observer throws ends the parse
/// as NO_MEMORY. This one does nothing with what it is told.
class IPolicyObserver {
public:
    virtual ~IPolicyObserver() = default;
    /// @param policy what has been read so far, this element included
    virtual void OnElement(const TSElement& /*element*/, const ZOLPolicy& /*policy*/) {}
    virtual void OnElementEnd() {}
    /// The document is taken, though it ends before it should: in the middle of a tag, inside an element, or
    /// without any.
    /// @param where it ends, or where what is cut in two begins
    virtual void OnCutShort(const TSPlace& /*where*/) {}
    /// Nothing follows.
    /// @param words what exactly is wrong
    virtual void OnRefused(const TSPlace& /*where*/, EPolicyRefusal /*reason*/, const char* /*words*/) {}
};

}  // namespace zol
