#include "ZOLPolicyParser.h"

#include <expat.h>
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>

#include "Log.h"
#include "PolicyAttributes.h"
#include "PolicyWords.h"

namespace zol {
namespace {

constexpr const char* kLogModule = "zol::TCPolicyParser";

// What is read may take more memory than the text: defaulted attributes, which expat's own limit on expansion
// does not count, items with few attributes or none, and elements inside elements. What each of them is
// charged is one number, so that every machine takes the same policies.
constexpr std::size_t kMaxRecordBytes = 2 * kMaxPolicyBytes;
/// What an item takes beside its texts, rounded up.
constexpr std::size_t kItemBytes = 160;
/// What an attribute is charged beside its texts. Its memory is only lent while its element is read; the
/// charge, which stays, bounds the work that defaulted attributes can make of small elements.
constexpr std::size_t kAttributeBytes = 16;

/// What expat keeps of an element for as long as it is open.
std::size_t OpenElementBytes(const XML_Char* name) {
    constexpr std::size_t kBesideTheName = 128;
    return kBesideTheName + std::strlen(name);
}

// expat copies the text, keeps every name that it has met, and takes in all attributes of a tag before it
// calls anybody. None of that can be charged, so what it allocates is bounded instead. Its functions get no
// context; a parser lives and dies on one thread.
constexpr std::size_t kMaxExpatBytes = 4 * kMaxPolicyBytes;
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

XML_Parser CreateParser() {
    const XML_Memory_Handling_Suite bounded{&AllocateForExpat, &ReallocateForExpat, &FreeForExpat};
    return XML_ParserCreate_MM(nullptr, &bounded, nullptr);
}

struct FreeParser {
    void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};
using ParserPtr = std::unique_ptr<std::remove_pointer_t<XML_Parser>, FreeParser>;

/// What an element does not carry keeps the default of the record.
template <typename Item, std::size_t N>
void Fill(Item& item, const std::array<TSItemAttribute<Item>, N>& known, const TCAttributes& attributes) {
    for (const TSItemAttribute<Item>& attribute : known) {
        if (attribute.text != nullptr) {
            attributes.GetValue(attribute.name, item.*attribute.text);
        } else {
            attributes.GetValue(attribute.name, item.*attribute.number);
        }
    }
}

}  // namespace

struct TCPolicyParser::TSParseContext {
    const TCPolicyParser* parser;
    ZOLPolicy* policy;
    XML_Parser expat;
    std::string currentElement;
    std::size_t recordBytes = 0;
    int declarations = 0;
};

/// What expat calls. Each returns normally whatever happens inside; an exception ends the parse with
/// XML_ERROR_ABORTED.
struct TCPolicyParser::TSCallbacks {
    template <typename Body>
    static void Guard(TSParseContext* context, Body body) {
        try {
            body();
        } catch (...) {
            XML_StopParser(context->expat, XML_FALSE);
        }
    }

    static void StartElement(void* userData, const XML_Char* name, const XML_Char** attributes);
    static void EndElement(void* userData, const XML_Char* name);
    static void CharacterData(void* userData, const XML_Char* text, int length);
    static void EntityDeclaration(void* userData, const XML_Char* name, int isParameterEntity,
                                  const XML_Char* value, int valueLength, const XML_Char* base,
                                  const XML_Char* systemId, const XML_Char* publicId,
                                  const XML_Char* notationName);
    static void AttributeDeclaration(void* userData, const XML_Char* element, const XML_Char* attribute,
                                     const XML_Char* type, const XML_Char* value, int isRequired);

    static void Register(TSParseContext& context);
    static bool Charge(TSParseContext& context, std::size_t bytes);
    static TCAttributes Collect(TSParseContext& context, const XML_Char** attributes);
    static void CountDeclaration(TSParseContext& context);
};

/// False, and the parse ends, when the document takes too much memory.
bool TCPolicyParser::TSCallbacks::Charge(TSParseContext& context, std::size_t bytes) {
    context.recordBytes += bytes;
    if (context.recordBytes <= kMaxRecordBytes) {
        return true;
    }
    XML_StopParser(context.expat, XML_FALSE);
    return false;
}

TCAttributes TCPolicyParser::TSCallbacks::Collect(TSParseContext& context, const XML_Char** attributes) {
    TCAttributes collected;
    for (int count = 1; attributes[0] != nullptr && attributes[1] != nullptr; attributes += 2, ++count) {
        const std::string name = attributes[0];
        const std::string value = attributes[1];
        if (count > kMaxAttributes) {
            XML_StopParser(context.expat, XML_FALSE);
            break;
        }
        if (!Charge(context, kAttributeBytes + name.size() + value.size())) {
            break;
        }
        collected.Insert(name, value);
    }
    return collected;
}

void TCPolicyParser::TSCallbacks::StartElement(void* userData, const XML_Char* name,
                                               const XML_Char** attributes) {
    auto* context = static_cast<TSParseContext*>(userData);
    if (context == nullptr || name == nullptr || attributes == nullptr) {
        return;
    }
    if (!Charge(*context, OpenElementBytes(name))) {
        return;
    }
    Guard(context, [&] {
        const TCAttributes collected = Collect(*context, attributes);
        if (context->parser == nullptr || context->policy == nullptr) {
            return;
        }
        std::string tag = ToLowerAscii(name);
        const auto handler = context->parser->m_startHandlers.find(tag);
        if (handler != context->parser->m_startHandlers.end() && Charge(*context, kItemBytes)) {
            handler->second(*context->policy, collected);
        }
        context->currentElement = std::move(tag);
    });
}

void TCPolicyParser::TSCallbacks::EndElement(void* userData, const XML_Char* name) {
    auto* context = static_cast<TSParseContext*>(userData);
    if (context == nullptr) {
        return;
    }
    context->recordBytes -= OpenElementBytes(name);
    ZOL_LOG(LOG_ERROR, "clear current element (%s)", context->currentElement.c_str());
    context->currentElement.clear();
}

void TCPolicyParser::TSCallbacks::CharacterData(void* userData, const XML_Char* text, int length) {
    auto* context = static_cast<TSParseContext*>(userData);
    if (context == nullptr || text == nullptr || length < 1) {
        ZOL_LOG(LOG_ERROR, "invalid parameters");
        return;
    }
    if (context->parser == nullptr || context->policy == nullptr || context->currentElement.empty()) {
        return;
    }
    Guard(context, [&] {
        // Looked up first: expat hands over text line by line, and to copy a long element name for each line
        // of a hostile document would take hours.
        const auto handler = context->parser->m_dataHandlers.find(context->currentElement);
        if (handler == context->parser->m_dataHandlers.end()) {
            return;
        }
        TCElements elements;
        elements.SetCurrentElement(context->currentElement);
        elements.InsertElementData(context->currentElement,
                                   std::string(text, static_cast<std::size_t>(length)));
        handler->second(*context->policy, elements);
    });
}

void TCPolicyParser::TSCallbacks::CountDeclaration(TSParseContext& context) {
    if (++context.declarations > kMaxDeclarations) {
        XML_StopParser(context.expat, XML_FALSE);
    }
}

void TCPolicyParser::TSCallbacks::EntityDeclaration(void* userData, const XML_Char* /*name*/,
                                                    int /*isParameterEntity*/, const XML_Char* /*value*/,
                                                    int /*valueLength*/, const XML_Char* /*base*/,
                                                    const XML_Char* /*systemId*/,
                                                    const XML_Char* /*publicId*/,
                                                    const XML_Char* /*notationName*/) {
    CountDeclaration(*static_cast<TSParseContext*>(userData));
}

void TCPolicyParser::TSCallbacks::AttributeDeclaration(void* userData, const XML_Char* /*element*/,
                                                       const XML_Char* /*attribute*/,
                                                       const XML_Char* /*type*/, const XML_Char* /*value*/,
                                                       int /*isRequired*/) {
    CountDeclaration(*static_cast<TSParseContext*>(userData));
}

void TCPolicyParser::TSCallbacks::Register(TSParseContext& context) {
    XML_SetUserData(context.expat, &context);
    XML_SetElementHandler(context.expat, &StartElement, &EndElement);
    XML_SetCharacterDataHandler(context.expat, &CharacterData);
    XML_SetEntityDeclHandler(context.expat, &EntityDeclaration);
    XML_SetAttlistDeclHandler(context.expat, &AttributeDeclaration);
}

TCPolicyParser::TCPolicyParser()
    : m_startHandlers{{"zolitem", &m_HandleMonitorInfoTag},
                      {"zols", &m_HandleZolsTag},
                      {"zol_expired_time", &m_HandleDurationTag},
                      {"monitor", &m_HandleMonitorTag}} {}

bool TCPolicyParser::Parse(const std::string& xml, ZOLPolicy& policy) const {
    policy.vconfMonitors.clear();
    if (xml.size() > kMaxPolicyBytes) {
        ZOL_LOG(LOG_ERROR, "Policy of %zu bytes refused, at most %zu are read", xml.size(), kMaxPolicyBytes);
        ZOL_LOG(LOG_ERROR, "Parsing failed.");
        return false;
    }
    ParserPtr parser(CreateParser());
    if (parser == nullptr) {
        ZOL_LOG(LOG_ERROR, "Couldnt create parser");
        return false;
    }
    TSParseContext context{this, &policy, parser.get(), {}};
    TSCallbacks::Register(context);

    // Not final: a document that was only cut short still gives the items before the cut.
    if (XML_Parse(parser.get(), xml.data(), static_cast<int>(xml.size()), XML_FALSE) == XML_STATUS_OK) {
        return true;
    }
    ZOL_LOG(LOG_ERROR, "Error while parsing policy: %s, line: %lu, col: %lu",
            XML_ErrorString(XML_GetErrorCode(parser.get())),
            static_cast<unsigned long>(XML_GetCurrentLineNumber(parser.get())),
            static_cast<unsigned long>(XML_GetCurrentColumnNumber(parser.get())));
    parser.reset();
    ZOL_LOG(LOG_ERROR, "Parsing failed.");
    return false;
}

void TCPolicyParser::m_HandleMonitorInfoTag(ZOLPolicy& policy, const TCAttributes& attributes) {
    std::int32_t count = 0;
    attributes.GetValue("numofzol", count);
    policy.numOfZol = count;
    ZOL_LOG(LOG_ERROR, "MONITORINFO_CNT [%d]", policy.numOfZol);
}

void TCPolicyParser::m_HandleZolsTag(ZOLPolicy& policy, const TCAttributes& attributes) {
    ZOLVconfMonitor item;
    Fill(item, kVconfAttributes, attributes);
    ZOL_LOG(LOG_ERROR, "key[%s], condition[%s], type[%s], intValue[%d], strValue[%s], greater[%d], less[%d]",
            item.key.c_str(), item.condition.c_str(), item.type.c_str(), item.intValue, item.strValue.c_str(),
            item.greater, item.less);
    policy.vconfMonitors.push_back(std::move(item));
}

void TCPolicyParser::m_HandleDurationTag(ZOLPolicy& policy, const TCAttributes& attributes) {
    std::uint64_t time = 0;
    attributes.GetValue("time", time);
    policy.expiredTime = time;
}

void TCPolicyParser::m_HandleMonitorTag(ZOLPolicy& policy, const TCAttributes& attributes) {
    ZOLPolicyMonitor item;
    Fill(item, kMonitorAttributes, attributes);
    ZOL_LOG(LOG_ERROR,
            "MONITOR_TYPE[%d] MONITOR_ID[%s] MONITOR_NAME[%s] MONITOR_METHOD[%d] MONITOR_DURATION[%d] "
            "MONITOR_REPETITION[%d] reserve1[%s]",
            item.type, item.id.c_str(), item.name.c_str(), item.method, item.duration, item.repetition,
            item.reserve1.c_str());
    policy.policyMonitors.push_back(std::move(item));
}

}  // namespace zol
