#pragma once

#include <QLoggingCategory>
#include <QString>
#include <QVariant>

Q_DECLARE_LOGGING_CATEGORY(lcStore)

namespace vantro {

class LocalStore;

namespace storesql {

// Current UTC time as ISO-8601 with milliseconds; fixed width, so text comparison orders it.
QString nowIso();
// A random UUID without braces.
QString newId();
// The only value that binds as SQL NULL: every QString, even a null one, binds as text.
QVariant nullText();
// The text itself, or NULL when it is empty (nullable id columns never hold '').
QVariant textOrNull(const QString& text);

} // namespace storesql

// A write transaction on the store's connection, rolled back unless committed. It takes the
// write lock up front (BEGIN IMMEDIATE): the busy timeout then applies, whereas upgrading a
// read snapshot that another connection has meanwhile outdated fails at once.
class StoreTransaction
{
public:
    explicit StoreTransaction(LocalStore& store);
    ~StoreTransaction();
    StoreTransaction(const StoreTransaction&) = delete;
    StoreTransaction& operator=(const StoreTransaction&) = delete;

    void commit();

private:
    LocalStore& m_store;
    bool m_open = false;
};

} // namespace vantro
