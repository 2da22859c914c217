// libsecret's GLib headers use `signals` as a member name, so they come before any Qt header.
#include <libsecret/secret.h>

#include "platform/SecretStore.h"

#include <QLoggingCategory>
#include <QUuid>

#include <memory>

namespace vantro::platform {

namespace {

Q_LOGGING_CATEGORY(lcSecret, "vantro.platform.secret")

const QString kPrefix = QStringLiteral("secret-service:");

struct GObjectUnref
{
    void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T> using GObjectPtr = std::unique_ptr<T, GObjectUnref>;

struct AttributesUnref
{
    void operator()(GHashTable* table) const { g_hash_table_unref(table); }
};
using Attributes = std::unique_ptr<GHashTable, AttributesUnref>;

// Logs and clears a GLib error; true when there was one.
bool failed(GError*& error, const char* what)
{
    if (!error)
        return false;
    qCDebug(lcSecret) << what << "failed:" << error->message;
    g_clear_error(&error);
    return true;
}

const SecretSchema* schema()
{
    static const SecretSchema value = [] {
        SecretSchema s{};
        s.name = "vantro.sign.DeviceSecret";
        s.flags = SECRET_SCHEMA_NONE;
        s.attributes[0].name = "key";
        s.attributes[0].type = SECRET_SCHEMA_ATTRIBUTE_STRING;
        return s;
    }();
    return &value;
}

// The keyring is asked only when a session bus is configured: without one GLib would try to
// autolaunch a bus, which can hang or spawn daemons on headless machines.
GObjectPtr<SecretService> openService()
{
    if (qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS"))
        return {};
    GError* error = nullptr;
    GObjectPtr<SecretService> service(
        secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, nullptr, &error));
    if (failed(error, "connecting to the Secret Service"))
        return {};
    return service;
}

// The lookup key of one of our stored texts, or "" for any other text.
QByteArray lookupKey(const QString& stored)
{
    if (!stored.startsWith(kPrefix))
        return {};
    return stored.mid(kPrefix.size()).toUtf8();
}

Attributes attributesFor(const QByteArray& key)
{
    Attributes attributes(g_hash_table_new(g_str_hash, g_str_equal));
    g_hash_table_insert(attributes.get(), const_cast<char*>("key"),
                        const_cast<char*>(key.constData()));
    return attributes;
}

// Runs `use` on each unlocked item stored under `key`. Locked items are skipped rather than
// unlocked, because unlocking raises a prompt that nobody may answer.
template <typename Use>
void forEachUnlockedItem(const QByteArray& key, SecretSearchFlags flags, Use use)
{
    if (key.isEmpty())
        return;
    const GObjectPtr<SecretService> service = openService();
    if (!service)
        return;
    const Attributes attributes = attributesFor(key);
    GError* error = nullptr;
    GList* items = secret_service_search_sync(service.get(), schema(), attributes.get(), flags,
                                              nullptr, &error);
    failed(error, "searching the keyring");
    for (GList* it = items; it; it = it->next) {
        auto* item = static_cast<SecretItem*>(it->data);
        if (!secret_item_get_locked(item))
            use(item);
    }
    g_list_free_full(items, g_object_unref);
}

class SecretServiceStore final : public SecretStore
{
public:
    QString protect(const QString& secret) override
    {
        const GObjectPtr<SecretService> service = openService();
        if (!service)
            return {};
        GError* error = nullptr;
        const GObjectPtr<SecretCollection> collection(secret_collection_for_alias_sync(
            service.get(), SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, nullptr, &error));
        if (failed(error, "opening the default keyring") || !collection)
            return {};
        if (secret_collection_get_locked(collection.get())) {
            qCDebug(lcSecret) << "default keyring is locked";
            return {};
        }
        const QByteArray key = QUuid::createUuid().toString(QUuid::WithoutBraces).toUtf8();
        const QByteArray text = secret.toUtf8();
        const Attributes attributes = attributesFor(key);
        SecretValue* value = secret_value_new(text.constData(), text.size(), "text/plain");
        const GObjectPtr<SecretItem> item(secret_item_create_sync(
            collection.get(), schema(), attributes.get(), "Vantro Sign device secret", value,
            SECRET_ITEM_CREATE_REPLACE, nullptr, &error));
        secret_value_unref(value);
        if (failed(error, "storing the device secret") || !item)
            return {};
        return kPrefix + QString::fromUtf8(key);
    }

    QString unprotect(const QString& stored) override
    {
        QString secret;
        forEachUnlockedItem(lookupKey(stored), SECRET_SEARCH_LOAD_SECRETS, [&](SecretItem* item) {
            SecretValue* value = secret_item_get_secret(item);
            if (!value)
                return;
            gsize length = 0;
            const gchar* data = secret_value_get(value, &length);
            secret = QString::fromUtf8(data, static_cast<qsizetype>(length));
            secret_value_unref(value);
        });
        return secret;
    }

    void discard(const QString& stored) override
    {
        forEachUnlockedItem(lookupKey(stored), SECRET_SEARCH_ALL, [](SecretItem* item) {
            GError* error = nullptr;
            secret_item_delete_sync(item, nullptr, &error);
            failed(error, "removing an old device secret");
        });
    }
};

} // namespace

SecretStore& systemSecretStore()
{
    static SecretServiceStore store;
    return store;
}

} // namespace vantro::platform
