#include "store/LocalStore.h"

#include "app/AppState.h"
#include "app/Errors.h"
#include "store/RecordJson.h"
#include "store/RootRules.h"
#include "store/StoreSql.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QUuid>

#include <optional>
#include <unordered_map>

Q_LOGGING_CATEGORY(lcStore, "vantro.store")

namespace vantro {

namespace {

constexpr int kBusyTimeoutMs = 5000;

[[noreturn]] void failWith(const QSqlError& error)
{
    throw VantroError(error.text());
}

} // namespace

namespace storesql {

QString nowIso()
{
    return QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs);
}

QString newId()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces);
}

QVariant nullText()
{
    return QVariant();
}

QVariant textOrNull(const QString& text)
{
    return text.isEmpty() ? nullText() : QVariant(text);
}

} // namespace storesql

class LocalStore::QueryCache
{
public:
    std::unordered_map<QString, std::unique_ptr<QSqlQuery>> queries;
};

StoreTransaction::StoreTransaction(LocalStore& store)
    : m_store(store)
{
    m_store.execute(QStringLiteral("BEGIN IMMEDIATE"));
    m_open = true;
}

StoreTransaction::~StoreTransaction()
{
    if (!m_open)
        return;
    try {
        m_store.execute(QStringLiteral("ROLLBACK"));
    } catch (const VantroError& error) {
        qCWarning(lcStore) << "Rollback failed:" << error.text();
    }
}

void StoreTransaction::commit()
{
    m_store.execute(QStringLiteral("COMMIT"));
    m_open = false;
}

LocalStore::LocalStore(AppState* state, QObject* parent)
    : LocalStore(state, databasePath(), parent)
{
}

LocalStore::LocalStore(AppState* state, const QString& databaseFile, QObject* parent)
    : QObject(parent)
    , m_state(state)
    , m_connectionName(QStringLiteral("vantro-sign-app-local-store-%1").arg(storesql::newId()))
    , m_databaseFile(databaseFile)
    , m_queries(std::make_unique<QueryCache>())
{
}

LocalStore::~LocalStore()
{
    // Prepared statements and every handle must be gone before the connection is removed,
    // otherwise Qt keeps it alive and warns; worker threads create thousands of stores.
    m_queries.reset();
    if (QSqlDatabase::contains(m_connectionName)) {
        {
            QSqlDatabase db = QSqlDatabase::database(m_connectionName, false);
            db.close();
        }
        QSqlDatabase::removeDatabase(m_connectionName);
    }
}

QString LocalStore::databasePath()
{
    return QDir(AppState::dataDir()).filePath(QStringLiteral("local.db"));
}

QString LocalStore::localRoot() const
{
    if (!m_state)
        return {};
    const QString root = m_state->localRoot();
    return root.isEmpty() ? QString() : QDir::cleanPath(QFileInfo(root).absoluteFilePath());
}

QJsonObject LocalStore::deleteSettings() const
{
    return m_state ? m_state->localDeleteSettings() : QJsonObject();
}

QString LocalStore::deletedFolderName() const
{
    const QString name = deleteSettings().value(QLatin1String("deletedFolderName")).toString();
    return name.isEmpty() ? QString::fromLatin1(rootrules::kDefaultDeletedFolder) : name;
}

QSqlDatabase LocalStore::database() const
{
    return QSqlDatabase::database(m_connectionName, false);
}

void LocalStore::open()
{
    openConnection();
    if (m_schemaEnsured)
        return;
    runSchemaStep();
    m_schemaEnsured = true;
}

void LocalStore::openConnection()
{
    QSqlDatabase db = QSqlDatabase::contains(m_connectionName)
                          ? database()
                          : QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), m_connectionName);
    if (db.isOpen())
        return;
    db.setDatabaseName(m_databaseFile);
    db.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=%1").arg(kBusyTimeoutMs));
    QDir().mkpath(QFileInfo(m_databaseFile).absolutePath());
    if (!db.open())
        failWith(db.lastError());
    QSqlQuery pragma(db);
    if (!pragma.exec(QStringLiteral("PRAGMA busy_timeout = %1").arg(kBusyTimeoutMs)))
        failWith(pragma.lastError());
    qCDebug(lcStore) << "Opened" << m_databaseFile << "as" << m_connectionName;
}

QSqlQuery& LocalStore::prepared(const QString& sql)
{
    auto& slot = m_queries->queries[sql];
    if (!slot) {
        auto query = std::make_unique<QSqlQuery>(database());
        query->setForwardOnly(true);
        if (!query->prepare(sql)) {
            const QSqlError error = query->lastError();
            m_queries->queries.erase(sql);
            failWith(error);
        }
        slot = std::move(query);
    }
    return *slot;
}

QSqlQuery& LocalStore::run(const QString& sql, const QVariantList& values)
{
    open();
    QSqlQuery& query = prepared(sql);
    for (int i = 0; i < values.size(); ++i) {
        const QVariant& value = values.at(i);
        // The driver binds a null QString as NULL; text that is merely absent is '' here, and
        // NULL is only written when asked for with nullText().
        const bool nullString = value.typeId() == QMetaType::QString && value.toString().isNull();
        query.bindValue(i, nullString ? QVariant(QStringLiteral("")) : value);
    }
    if (!query.exec()) {
        const QSqlError error = query.lastError();
        query.finish();
        failWith(error);
    }
    return query;
}

void LocalStore::forEachRow(const QString& sql, const QVariantList& values,
                            const std::function<void(const QSqlQuery&)>& onRow)
{
    QSqlQuery& query = run(sql, values);
    try {
        while (query.next())
            onRow(query);
    } catch (...) {
        query.finish();
        throw;
    }
    const QSqlError error = query.lastError();
    query.finish();
    if (error.isValid())
        failWith(error);
}

QList<QJsonObject> LocalStore::selectRows(const QString& sql, const QVariantList& values)
{
    QList<QJsonObject> rows;
    std::optional<records::RowReader> reader;
    forEachRow(sql, values, [&](const QSqlQuery& query) {
        if (!reader)
            reader.emplace(query.record());
        rows.append(reader->read(query));
    });
    return rows;
}

QJsonObject LocalStore::selectRow(const QString& sql, const QVariantList& values)
{
    const QList<QJsonObject> rows = selectRows(sql, values);
    return rows.isEmpty() ? QJsonObject() : rows.first();
}

QJsonObject LocalStore::selectRequiredRow(const QString& sql, const QVariantList& values,
                                          const QString& code, const QString& message)
{
    const QJsonObject row = selectRow(sql, values);
    if (row.isEmpty())
        fail(code, message);
    return row;
}

int LocalStore::execute(const QString& sql, const QVariantList& values)
{
    QSqlQuery& query = run(sql, values);
    const int affected = query.numRowsAffected();
    query.finish();
    return affected;
}

qint64 LocalStore::count(const QString& sql)
{
    QSqlQuery& query = run(sql, {});
    const qint64 value = query.next() ? query.value(0).toLongLong() : 0;
    query.finish();
    return value;
}

} // namespace vantro
