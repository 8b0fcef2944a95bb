#include "policy_daemon.h"

#include <iostream>

#include "commands.h"
#include "text.h"

namespace zolctl {
namespace {

constexpr base::BusObject kPolicy{"org.zol.Daemon1", "/org/zol/Daemon1", "org.zol.Policy1"};
constexpr base::BusObject kProperties{"org.zol.Daemon1", "/org/zol/Daemon1",
                                      "org.freedesktop.DBus.Properties"};
constexpr int kTimeoutMs = 60000;  // applying or explaining a policy of thousands of rules takes a while

Json::Value ToJson(GVariant* value);

Json::Value MembersToJson(GVariant* value) {
    const bool isObject = g_variant_is_of_type(value, G_VARIANT_TYPE_DICTIONARY) != FALSE;
    Json::Value json(isObject ? Json::objectValue : Json::arrayValue);
    for (gsize index = 0; index < g_variant_n_children(value); ++index) {
        const base::GVariantPtr member(g_variant_get_child_value(value, index));
        if (isObject) {
            const base::GVariantPtr name(g_variant_get_child_value(member.get(), 0));
            const base::GVariantPtr held(g_variant_get_child_value(member.get(), 1));
            json[g_variant_get_string(name.get(), nullptr)] = ToJson(held.get());
        } else {
            json.append(ToJson(member.get()));
        }
    }
    return json;
}

Json::Value ToJson(GVariant* value) {
    switch (g_variant_classify(value)) {
        case G_VARIANT_CLASS_BOOLEAN:
            return {g_variant_get_boolean(value) != FALSE};
        case G_VARIANT_CLASS_INT32:
            return {g_variant_get_int32(value)};
        case G_VARIANT_CLASS_UINT32:
            return {g_variant_get_uint32(value)};
        case G_VARIANT_CLASS_INT64:
            return {Json::Int64{g_variant_get_int64(value)}};
        case G_VARIANT_CLASS_UINT64:
            return {Json::UInt64{g_variant_get_uint64(value)}};
        case G_VARIANT_CLASS_STRING:
            return {g_variant_get_string(value, nullptr)};
        case G_VARIANT_CLASS_VARIANT: {
            const base::GVariantPtr held(g_variant_get_variant(value));
            return ToJson(held.get());
        }
        default:
            return MembersToJson(value);
    }
}

}  // namespace

PolicyDaemon::EEnd PolicyDaemon::SetPolicy(const std::string& document, Handed& handed) {
    base::GVariantPtr answer;
    const EEnd end = m_bus.Call(kPolicy, "SetPolicy", g_variant_new("(s)", document.c_str()), "(bsa(uussss))",
                                kTimeoutMs, answer);
    if (end == EEnd::ANSWERED) {
        gboolean isAccepted = FALSE;
        const char* outcome = nullptr;
        g_variant_get(answer.get(), "(b&s@a(uussss))", &isAccepted, &outcome, nullptr);
        handed = {isAccepted != FALSE, outcome};
    }
    return end;
}

PolicyDaemon::EEnd PolicyDaemon::Properties(Json::Value& properties, int timeoutMs) {
    base::GVariantPtr answer;
    const EEnd end = m_bus.Call(kProperties, "GetAll", g_variant_new("(s)", kPolicy.interface), "(a{sv})",
                                timeoutMs, answer);
    if (end == EEnd::ANSWERED) {
        properties = ToJson(answer.get())[0];
    }
    return end;
}

PolicyDaemon::EEnd PolicyDaemon::Explain(const std::string& key, Json::Value& rules) {
    const base::GStringPtr text(g_utf8_make_valid(key.data(), static_cast<gssize>(key.size())));
    base::GVariantPtr answer;
    const EEnd end =
        m_bus.Call(kPolicy, "Explain", g_variant_new("(s)", text.get()), "(aa{sv})", kTimeoutMs, answer);
    if (end == EEnd::ANSWERED) {
        rules = ToJson(answer.get())[0];
    }
    return end;
}

int PolicyDaemon::Fail(EEnd end) const {
    std::cerr << "zolctl: "
              << (end == EEnd::FAILED ? "the daemon answers with an error: "
                                      : "the daemon cannot be reached: ")
              << tools::Printable(m_bus.LastError()) << '\n';
    return EXIT_UNREACHABLE;
}

}  // namespace zolctl
