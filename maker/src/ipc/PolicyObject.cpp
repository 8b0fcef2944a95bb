#include "PolicyObject.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "Policy1.h"

namespace zol::ipc {
namespace {

constexpr const char* kInterface = "org.zol.Policy1";

/// The bus takes valid UTF-8 only, and a policy may hold anything.
GVariant* Text(const std::string& text) {
    return g_variant_new_take_string(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
}

GVariant* Seconds(std::int64_t seconds) {
    return g_variant_new_uint64(seconds > 0 ? static_cast<guint64>(seconds) : 0);
}

GVariant* Remarks(const std::vector<TSPolicyRemark>& remarks) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(uussss)"));
    for (const TSPolicyRemark& remark : remarks) {
        g_variant_builder_add(&builder, "(uuss@s@s)", remark.line, remark.column,
                              remark.isError ? "error" : "warning", remark.kind.c_str(), Text(remark.text),
                              Text(remark.hint));
    }
    return g_variant_builder_end(&builder);
}

GVariant* Value(const std::variant<bool, std::int32_t, std::uint32_t, std::int64_t, std::string>& value) {
    return std::visit(
        [](const auto& held) -> GVariant* {
            using Held = std::decay_t<decltype(held)>;
            if constexpr (std::is_same_v<Held, bool>) {
                return g_variant_new_boolean(held ? TRUE : FALSE);
            } else if constexpr (std::is_same_v<Held, std::int32_t>) {
                return g_variant_new_int32(held);
            } else if constexpr (std::is_same_v<Held, std::uint32_t>) {
                return g_variant_new_uint32(held);
            } else if constexpr (std::is_same_v<Held, std::int64_t>) {
                return g_variant_new_int64(held);
            } else {
                return Text(held);
            }
        },
        value);
}

GVariant* Rules(const std::vector<TSPolicyRule>& rules) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("aa{sv}"));
    for (const TSPolicyRule& rule : rules) {
        g_variant_builder_open(&builder, G_VARIANT_TYPE_VARDICT);
        for (const auto& [name, value] : rule) {
            g_variant_builder_add(&builder, "{sv}", name.c_str(), Value(value));
        }
        g_variant_builder_close(&builder);
    }
    return g_variant_builder_end(&builder);
}

GVariant* Texts(const std::vector<std::string>& texts) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_STRING_ARRAY);
    for (const std::string& text : texts) {
        g_variant_builder_add_value(&builder, Text(text));
    }
    return g_variant_builder_end(&builder);
}

GVariant* Hit(const TSPolicyHit& hit) {
    return g_variant_new("(@t@s@s@s)", Seconds(hit.time), Text(hit.rule), Text(hit.value), Text(hit.report));
}

GVariant* Digests(IPolicyService& service) {
    const TSPolicyDigests digests = service.Digests();
    return g_variant_new("(ss)", digests.stored.c_str(), digests.running.c_str());
}

/// How a property is asked of the service.
struct Property {
    const char* name;
    bool isTold;  // by PropertiesChanged
    GVariant* (*get)(IPolicyService& service);
};
constexpr Property kProperties[] = {
    {"Version", false, [](IPolicyService& service) { return Text(service.State().version); }},
    {"PolicyVersion", true,
     [](IPolicyService& service) { return g_variant_new_int32(service.State().policyVersion); }},
    {"PolicyDigest", true, Digests},
    {"Monitoring", true,
     [](IPolicyService& service) {
         return g_variant_new_boolean(service.State().isMonitoring ? TRUE : FALSE);
     }},
    {"RulesWatched", true,
     [](IPolicyService& service) { return g_variant_new_uint32(service.State().rulesWatched); }},
    {"RulesDropped", true,
     [](IPolicyService& service) { return g_variant_new_uint32(service.State().rulesDropped); }},
    {"Since", false, [](IPolicyService& service) { return Seconds(service.State().since); }},
    {"Expires", false, [](IPolicyService& service) { return Seconds(service.State().expires); }},
    {"PathsWaiting", false,
     [](IPolicyService& service) { return g_variant_new_uint32(service.State().pathsWaiting); }},
    {"LastHit", false, [](IPolicyService& service) { return Hit(service.State().lastHit); }},
    {"MissingServices", false,
     [](IPolicyService& service) { return Texts(service.State().missingServices); }},
};

/// Runs what answers a call; what it throws is the answer then.
template <class Body>
gboolean Answer(GDBusMethodInvocation* invocation, Body body) {
    base::CatchAll(
        [&] {
            const base::GVariantPtr answer(g_variant_ref_sink(body()));
            if (g_variant_get_size(answer.get()) > kMaxMessageBytes) {
                g_dbus_method_invocation_return_dbus_error(invocation, kErrorTooLarge,
                                                           "the reply is longer than 16 MiB");
                return;
            }
            g_dbus_method_invocation_return_value(invocation, answer.get());
        },
        [&](const char* why) {
            MAKER_ERROR("IPC: %s of %s failed: %s", g_dbus_method_invocation_get_method_name(invocation),
                        kInterface, why);
            g_dbus_method_invocation_return_dbus_error(invocation, kErrorFailed, why);
        });
    return TRUE;
}

}  // namespace

/// The generated skeleton keeps the properties that it is given; this class asks for each when it is read.
struct PolicyObject::Skeleton {
    ZolPolicy1Skeleton parent;
    PolicyObject* object;

    static GVariant* GetProperty(GDBusConnection* /*connection*/, const gchar* /*sender*/,
                                 const gchar* /*path*/, const gchar* /*interface*/, const gchar* name,
                                 GError** error, gpointer instance) {
        GVariant* value = nullptr;
        base::CatchAll(
            [&] {
                const auto* const property = std::find_if(
                    std::begin(kProperties), std::end(kProperties),
                    [name](const Property& known) { return std::string_view(known.name) == name; });
                value = property->get(*static_cast<Skeleton*>(instance)->object->m_service);
            },
            [&](const char* why) {
                MAKER_ERROR("IPC: reading %s of %s failed: %s", name, kInterface, why);
                g_set_error_literal(error, G_DBUS_ERROR, G_DBUS_ERROR_FAILED, why);
            });
        return value;
    }

    static GDBusInterfaceVTable* GetVTable(GDBusInterfaceSkeleton* instance) {
        static GDBusInterfaceVTable table = [instance] {
            auto* const skeletonClass = static_cast<GDBusInterfaceSkeletonClass*>(
                g_type_class_peek_parent(G_DBUS_INTERFACE_SKELETON_GET_CLASS(instance)));
            GDBusInterfaceVTable generated = *skeletonClass->get_vtable(instance);
            generated.get_property = GetProperty;
            return generated;
        }();
        return &table;
    }

    static void InitClass(gpointer klass, gpointer /*data*/) {
        G_DBUS_INTERFACE_SKELETON_CLASS(klass)->get_vtable = GetVTable;
    }

    static gboolean SetPolicyCb(ZolPolicy1* /*skeleton*/, GDBusMethodInvocation* invocation,
                                const gchar* document, gpointer self) {
        return Answer(invocation, [&] {
            const TSPolicyAnswer answer = static_cast<PolicyObject*>(self)->m_service->SetPolicy(document);
            return g_variant_new("(b@s@a(uussss))", answer.isAccepted ? TRUE : FALSE, Text(answer.outcome),
                                 Remarks(answer.remarks));
        });
    }
    static gboolean CheckCb(ZolPolicy1* /*skeleton*/, GDBusMethodInvocation* invocation,
                            const gchar* document, gpointer self) {
        return Answer(invocation, [&] {
            return g_variant_new("(@a(uussss))",
                                 Remarks(static_cast<PolicyObject*>(self)->m_service->Check(document)));
        });
    }
    static gboolean ExplainCb(ZolPolicy1* /*skeleton*/, GDBusMethodInvocation* invocation, const gchar* key,
                              gpointer self) {
        return Answer(invocation, [&] {
            return g_variant_new("(@aa{sv})",
                                 Rules(static_cast<PolicyObject*>(self)->m_service->Explain(key)));
        });
    }

    static GType Type() {
        static const GType type = [] {
            GTypeInfo info{};
            info.class_size = sizeof(ZolPolicy1SkeletonClass);
            info.class_init = InitClass;
            info.instance_size = sizeof(Skeleton);
            return g_type_register_static(ZOL_TYPE_POLICY1_SKELETON, "ZolPolicyObject", &info,
                                          static_cast<GTypeFlags>(0));
        }();
        return type;
    }
};

PolicyObject::PolicyObject()
    : m_skeleton(G_DBUS_INTERFACE_SKELETON(g_object_new(Skeleton::Type(), nullptr))) {
    reinterpret_cast<Skeleton*>(m_skeleton.get())->object = this;
    g_signal_connect(m_skeleton.get(), "handle-set-policy", G_CALLBACK(Skeleton::SetPolicyCb), this);
    g_signal_connect(m_skeleton.get(), "handle-check", G_CALLBACK(Skeleton::CheckCb), this);
    g_signal_connect(m_skeleton.get(), "handle-explain", G_CALLBACK(Skeleton::ExplainCb), this);
}

PolicyObject::~PolicyObject() {
    Serve(nullptr);
    g_signal_handlers_disconnect_by_data(m_skeleton.get(), this);
}

void PolicyObject::Serve(IPolicyService* service) {
    Unexport();
    m_service = service;
    m_told.reset();
    Export();
}

void PolicyObject::Offer(GDBusConnection* connection) {
    m_connection.reset(G_DBUS_CONNECTION(g_object_ref(connection)));
    Export();
}

void PolicyObject::Withdraw() {
    Unexport();
    m_connection.reset();
}

void PolicyObject::Export() {
    if (m_service == nullptr || m_connection == nullptr) {
        return;
    }
    base::GErrorPtr error;
    if (g_dbus_interface_skeleton_export(m_skeleton.get(), m_connection.get(), kObjectPath,
                                         base::OutError(error)) == FALSE) {
        MAKER_ERROR("IPC: cannot offer %s: %s", kInterface, base::ErrorText(error.get()));
        return;
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_exportedOn.reset(G_DBUS_CONNECTION(g_object_ref(m_connection.get())));
}

void PolicyObject::Unexport() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_exportedOn != nullptr) {
        g_dbus_interface_skeleton_unexport(m_skeleton.get());
        m_exportedOn.reset();
    }
}

void PolicyObject::TellChange() {
    if (m_service == nullptr) {
        return;
    }
    GVariantDict all;
    GVariantBuilder changed;
    g_variant_dict_init(&all, nullptr);
    g_variant_builder_init(&changed, G_VARIANT_TYPE_VARDICT);
    bool isChanged = false;
    for (const Property& property : kProperties) {
        if (!property.isTold) {
            continue;
        }
        GVariant* const value = property.get(*m_service);
        g_variant_dict_insert_value(&all, property.name, value);
        const base::GVariantPtr before(
            m_told != nullptr ? g_variant_lookup_value(m_told.get(), property.name, nullptr) : nullptr);
        if (before == nullptr || g_variant_equal(before.get(), value) == FALSE) {
            g_variant_builder_add(&changed, "{sv}", property.name, value);
            isChanged = true;
        }
    }
    m_told.reset(g_variant_ref_sink(g_variant_dict_end(&all)));
    const base::GVariantPtr signal(g_variant_ref_sink(
        g_variant_new("(sa{sv}@as)", kInterface, &changed, g_variant_new_strv(nullptr, 0))));
    if (isChanged) {
        Emit("org.freedesktop.DBus.Properties", "PropertiesChanged", signal.get());
    }
}

void PolicyObject::TellHit(const TSPolicyHit& hit) {
    Emit(kInterface, "Hit", Hit(hit));
}

void PolicyObject::Emit(const char* interface, const char* signal, GVariant* parameters) {
    const base::GVariantPtr owned(g_variant_ref_sink(parameters));
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_exportedOn != nullptr) {
        static_cast<void>(g_dbus_connection_emit_signal(m_exportedOn.get(), nullptr, kObjectPath, interface,
                                                        signal, parameters,
                                                        nullptr));  // who is gone needs none
    }
}

}  // namespace zol::ipc
