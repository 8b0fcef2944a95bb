#include "ZOLPolicyParser.h"

#include <expat.h>

#include <array>
#include <utility>

#include "Log.h"
#include "ParseBudget.h"
#include "PolicyAttributes.h"
#include "PolicyWords.h"

namespace zol {
namespace {

constexpr const char* kLogModule = "zol::TCPolicyParser";

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
    TCParseBudget budget;
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
    static bool EndUnless(bool isWithin, const TSParseContext& context);
    static TCAttributes Collect(TSParseContext& context, const XML_Char** attributes);
};

/// Passes a budget's answer on; where it is no, the parse ends.
bool TCPolicyParser::TSCallbacks::EndUnless(bool isWithin, const TSParseContext& context) {
    if (!isWithin) {
        XML_StopParser(context.expat, XML_FALSE);
    }
    return isWithin;
}

TCAttributes TCPolicyParser::TSCallbacks::Collect(TSParseContext& context, const XML_Char** attributes) {
    TCAttributes collected;
    context.budget.BeginAttributes();
    for (; attributes[0] != nullptr && attributes[1] != nullptr; attributes += 2) {
        const std::string name = attributes[0];
        const std::string value = attributes[1];
        if (!EndUnless(context.budget.AddAttribute(name.size() + value.size()), context)) {
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
    if (!EndUnless(context->budget.OpenElement(name), *context)) {
        return;
    }
    Guard(context, [&] {
        const TCAttributes collected = Collect(*context, attributes);
        if (context->parser == nullptr || context->policy == nullptr) {
            return;
        }
        std::string tag = ToLowerAscii(name);
        const auto handler = context->parser->m_startHandlers.find(tag);
        if (handler != context->parser->m_startHandlers.end() &&
            EndUnless(context->budget.AddItem(), *context)) {
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
    context->budget.CloseElement(name);
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

void TCPolicyParser::TSCallbacks::EntityDeclaration(void* userData, const XML_Char* /*name*/,
                                                    int /*isParameterEntity*/, const XML_Char* /*value*/,
                                                    int /*valueLength*/, const XML_Char* /*base*/,
                                                    const XML_Char* /*systemId*/,
                                                    const XML_Char* /*publicId*/,
                                                    const XML_Char* /*notationName*/) {
    auto* context = static_cast<TSParseContext*>(userData);
    EndUnless(context->budget.AddDeclaration(), *context);
}

void TCPolicyParser::TSCallbacks::AttributeDeclaration(void* userData, const XML_Char* /*element*/,
                                                       const XML_Char* /*attribute*/,
                                                       const XML_Char* /*type*/, const XML_Char* /*value*/,
                                                       int /*isRequired*/) {
    auto* context = static_cast<TSParseContext*>(userData);
    EndUnless(context->budget.AddDeclaration(), *context);
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
    const XmlParserPtr parser = CreateBoundedParser();
    if (parser == nullptr) {
        ZOL_LOG(LOG_ERROR, "Couldnt create parser");
        return false;
    }
    TSParseContext context{this, &policy, parser.get(), {}, {}};
    TSCallbacks::Register(context);

    // Not final: a document that was only cut short still gives the items before the cut.
    if (XML_Parse(parser.get(), xml.data(), static_cast<int>(xml.size()), XML_FALSE) == XML_STATUS_OK) {
        return true;
    }
    ZOL_LOG(LOG_ERROR, "Error while parsing policy: %s, line: %lu, col: %lu",
            XML_ErrorString(XML_GetErrorCode(parser.get())),
            static_cast<unsigned long>(XML_GetCurrentLineNumber(parser.get())),
            static_cast<unsigned long>(XML_GetCurrentColumnNumber(parser.get())));
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
