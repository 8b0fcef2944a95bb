#include "List.h"

#include <new>

#include "Cursor.h"
#include "Logging.h"

namespace {

constexpr const char* kSource = "core/src/List";
constexpr TSCursorChecks kCursorChecks = {__ASSERT_ATSC3, kSource, 72, 104};

}  // namespace

CCList::~CCList() {
    AssertAtsc3(m_chain.size == 0, "m_size == 0", kSource, 14);
    for (const TSElement* element = m_chain.head; element != nullptr;) {
        const TSElement* const next = element->next;
        delete element;
        element = next;
    }
}

bool CCList::Add(void* data, EAddMode mode) {
    auto* const element = new (std::nothrow) TSElement{nullptr, nullptr, data};
    if (element == nullptr) {
        return false;
    }
    TSElement* const current = m_chain.current;
    if (!m_chain.HasCurrent()) {
        // The gap that a removal left; in a list that was always empty the marker has no neighbours either.
        m_chain.Link(element, m_chain.marker.previous, m_chain.marker.next);
    } else if (mode == ADD_BEFORE) {
        m_chain.Link(element, current->previous, current);
    } else {
        m_chain.Link(element, current, current->next);
    }
    return true;
}

bool CCList::SetPosition(EPosState state, long index) {
    return MoveCursor(m_chain, state, index, kCursorChecks);
}

void* CCList::Data() const {
    return m_chain.current == nullptr ? nullptr : m_chain.current->data;
}

bool CCList::Remove() {
    if (!m_chain.HasCurrent()) {
        return false;
    }
    delete m_chain.UnlinkCurrent();
    return true;
}
