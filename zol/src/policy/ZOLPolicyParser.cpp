#include "ZOLPolicyParser.h"

#include <expat.h>

#include <string_view>
#include <utility>

#include "Log.h"
#include "ParseBudget.h"
#include "PolicyAttributes.h"
#include "PolicyObserver.h"

namespace zol {
namespace {

constexpr const char* kLogModule = "zol::TCPolicyParser";

TSPlace PlaceOf(XML_Parser expat) {
    return {static_cast<unsigned>(XML_GetCurrentLineNumber(expat)),
            static_cast<unsigned>(XML_GetCurrentColumnNumber(expat)) + 1};
}

}  // namespace

struct TCPolicyParser::TSParseContext {
    const TCPolicyParser* parser;
    ZOLPolicy* policy;
    XML_Parser expat;
    IPolicyObserver* observer;
    std::string currentElement;
    TCAttributes attributes;  // of the element that is being read
    TCParseBudget budget;
    bool isBeyondBudget = false;
};

/// What expat calls. Each returns normally whatever happens inside; an exception ends the parse with
/// XML_ERROR_ABORTED.
struct TCPolicyParser::TSCallbacks {
    template <typename Body>
    static void Guard(const TSParseContext& context, Body body) {
        try {
            body();
        } catch (...) {
            XML_StopParser(context.expat, XML_FALSE);
        }
    }

    /// Passes a budget's answer on; where it is no, the parse ends.
    static bool EndUnless(bool isWithin, TSParseContext& context) {
        if (!isWithin) {
            context.isBeyondBudget = true;
            XML_StopParser(context.expat, XML_FALSE);
        }
        return isWithin;
    }

    static void Collect(TSParseContext& context, const XML_Char* const* attributes) {
        context.attributes.Clear();
        context.budget.BeginAttributes();
        for (; attributes[0] != nullptr && attributes[1] != nullptr; attributes += 2) {
            const std::string_view name = attributes[0];
            const std::string_view value = attributes[1];
            if (!EndUnless(context.budget.AddAttribute(name.size() + value.size()), context)) {
                break;
            }
            context.attributes.Insert(name, value);
        }
    }

    static void StartElement(void* userData, const XML_Char* name, const XML_Char** attributes) {
        auto& context = *static_cast<TSParseContext*>(userData);
        if (!EndUnless(context.budget.OpenElement(name), context)) {
            return;
        }
        Guard(context, [&] {
            Collect(context, attributes);
            AssignLowerAscii(context.currentElement, name);
            const auto handler = context.parser->m_startHandlers.find(context.currentElement);
            if (handler != context.parser->m_startHandlers.end() &&
                EndUnless(context.budget.AddItem(), context)) {
                handler->second(*context.policy, context.attributes, context.observer == nullptr);
            }
            if (context.observer != nullptr && !context.isBeyondBudget) {
                context.observer->OnElement({PlaceOf(context.expat), name, attributes, context.attributes},
                                            *context.policy);
            }
        });
    }

    static void EndElement(void* userData, const XML_Char* name) {
        auto& context = *static_cast<TSParseContext*>(userData);
        context.budget.CloseElement(name);
        if (context.observer == nullptr) {
            ZOL_LOG(LOG_ERROR, "clear current element (%s)", context.currentElement.c_str());
        } else {
            Guard(context, [&] { context.observer->OnElementEnd(); });
        }
        context.currentElement.clear();
    }

    static void CharacterData(void* userData, const XML_Char* text, int length) {
        const auto* context = static_cast<const TSParseContext*>(userData);
        if (context == nullptr || text == nullptr || length < 1) {
            ZOL_LOG(LOG_ERROR, "invalid parameters");
            return;
        }
        Guard(*context, [&] {
            // Looked up first: expat hands over text line by line, and to copy a long element name for each
            // line of a hostile document would take hours.
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

    static void Declaration(void* userData) {
        auto& context = *static_cast<TSParseContext*>(userData);
        EndUnless(context.budget.AddDeclaration(), context);
    }

    static void Register(TSParseContext& context) {
        XML_SetUserData(context.expat, &context);
        XML_SetElementHandler(context.expat, &StartElement, &EndElement);
        XML_SetCharacterDataHandler(context.expat, &CharacterData);
        XML_SetEntityDeclHandler(context.expat, [](void* data, auto...) { Declaration(data); });
        XML_SetAttlistDeclHandler(context.expat, [](void* data, auto...) { Declaration(data); });
    }

    /// Whether a document that was taken is whole is only known once it is finalised. That changes nothing:
    /// what is read by then has been handed over.
    static void TellWhetherCutShort(const TSParseContext& context) {
        XML_SetElementHandler(context.expat, nullptr, nullptr);
        XML_SetCharacterDataHandler(context.expat, nullptr);
        if (XML_Parse(context.expat, nullptr, 0, XML_TRUE) != XML_STATUS_OK) {
            context.observer->OnCutShort(PlaceOf(context.expat));
        }
    }

    static EPolicyRefusal TellRefusal(const TSParseContext& context) {
        const XML_Error error = XML_GetErrorCode(context.expat);
        EPolicyRefusal reason = EPolicyRefusal::MALFORMED;
        if (context.isBeyondBudget) {
            reason = EPolicyRefusal::BEYOND_BUDGET;
        } else if (error == XML_ERROR_NO_MEMORY || error == XML_ERROR_ABORTED) {
            reason = EPolicyRefusal::NO_MEMORY;
        }
        if (context.observer != nullptr) {
            context.observer->OnRefused(PlaceOf(context.expat), reason, XML_ErrorString(error));
        } else {
            ZOL_LOG(LOG_ERROR, "Error while parsing policy: %s, line: %lu, col: %lu", XML_ErrorString(error),
                    static_cast<unsigned long>(XML_GetCurrentLineNumber(context.expat)),
                    static_cast<unsigned long>(XML_GetCurrentColumnNumber(context.expat)));
            ZOL_LOG(LOG_ERROR, "Parsing failed.");
        }
        return reason;
    }
};

TCPolicyParser::TCPolicyParser()
    : m_startHandlers{{"zolitem", &m_HandleMonitorInfoTag},
                      {"zols", &m_HandleZolsTag},
                      {"zol_expired_time", &m_HandleDurationTag},
                      {"monitor", &m_HandleMonitorTag}} {}

bool TCPolicyParser::Parse(const std::string& xml, ZOLPolicy& policy, IPolicyObserver* observer) const {
    return !FindRefusal(xml, policy, observer);
}

std::optional<EPolicyRefusal> TCPolicyParser::FindRefusal(const std::string& xml, ZOLPolicy& policy,
                                                          IPolicyObserver* observer) const {
    policy.vconfMonitors.clear();
    if (xml.size() > kMaxPolicyBytes) {
        if (observer != nullptr) {
            observer->OnRefused({}, EPolicyRefusal::TOO_LONG, "too long");
        } else {
            ZOL_LOG(LOG_ERROR, "Policy of %zu bytes refused, at most %zu are read", xml.size(),
                    kMaxPolicyBytes);
            ZOL_LOG(LOG_ERROR, "Parsing failed.");
        }
        return EPolicyRefusal::TOO_LONG;
    }
    const XmlParserPtr parser = CreateBoundedParser();
    if (parser == nullptr) {
        if (observer != nullptr) {
            observer->OnRefused({}, EPolicyRefusal::NO_MEMORY, "out of memory");
        } else {
            ZOL_LOG(LOG_ERROR, "Couldnt create parser");
        }
        return EPolicyRefusal::NO_MEMORY;
    }
    TSParseContext context{this, &policy, parser.get(), observer, {}, {}, {}};
    TSCallbacks::Register(context);

    // Not final: a document that was only cut short still gives the items before the cut.
    if (XML_Parse(parser.get(), xml.data(), static_cast<int>(xml.size()), XML_FALSE) == XML_STATUS_OK) {
        if (observer != nullptr) {
            TSCallbacks::TellWhetherCutShort(context);
        }
        return std::nullopt;
    }
    return TSCallbacks::TellRefusal(context);
}

void TCPolicyParser::m_HandleMonitorInfoTag(ZOLPolicy& policy, const TCAttributes& attributes,
                                            bool isLogged) {
    policy.numOfZol = 0;
    attributes.GetValue("numofzol", policy.numOfZol);
    if (isLogged) {
        ZOL_LOG(LOG_ERROR, "MONITORINFO_CNT [%d]", policy.numOfZol);
    }
}

void TCPolicyParser::m_HandleZolsTag(ZOLPolicy& policy, const TCAttributes& attributes, bool isLogged) {
    ZOLVconfMonitor item;
    attributes.GetValue("key", item.key);
    attributes.GetValue("condition", item.condition);
    attributes.GetValue("intvalue", item.intValue);
    attributes.GetValue("greater", item.greater);
    attributes.GetValue("less", item.less);
    attributes.GetValue("strvalue", item.strValue);
    attributes.GetValue("type", item.type);
    if (isLogged) {
        ZOL_LOG(LOG_ERROR,
                "key[%s], condition[%s], type[%s], intValue[%d], strValue[%s], greater[%d], less[%d]",
                item.key.c_str(), item.condition.c_str(), item.type.c_str(), item.intValue,
                item.strValue.c_str(), item.greater, item.less);
    }
    policy.vconfMonitors.push_back(std::move(item));
}

void TCPolicyParser::m_HandleDurationTag(ZOLPolicy& policy, const TCAttributes& attributes,
                                         bool /*isLogged*/) {
    policy.expiredTime = 0;
    attributes.GetValue("time", policy.expiredTime);
}

void TCPolicyParser::m_HandleMonitorTag(ZOLPolicy& policy, const TCAttributes& attributes, bool isLogged) {
    ZOLPolicyMonitor item;
    attributes.GetValue("kind", item.type);
    attributes.GetValue("id", item.id);
    attributes.GetValue("name", item.name);
    attributes.GetValue("method", item.method);
    attributes.GetValue("duration", item.duration);
    attributes.GetValue("repetition", item.repetition);
    attributes.GetValue("reserve1", item.reserve1);
    if (isLogged) {
        ZOL_LOG(LOG_ERROR,
                "MONITOR_TYPE[%d] MONITOR_ID[%s] MONITOR_NAME[%s] MONITOR_METHOD[%d] MONITOR_DURATION[%d] "
                "MONITOR_REPETITION[%d] reserve1[%s]",
                item.type, item.id.c_str(), item.name.c_str(), item.method, item.duration, item.repetition,
                item.reserve1.c_str());
    }
    policy.policyMonitors.push_back(std::move(item));
}

}  // namespace zol
