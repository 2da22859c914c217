#pragma once

#include "app/AppState.h"
#include "app/Errors.h"
#include "store/LocalStore.h"

#include <QDir>
#include <QFile>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QStringList>
#include <QTemporaryDir>
#include <QtTest>
#include <QUuid>
#include <QVariant>

#include <functional>
#include <memory>

namespace storetest {

// A second, independent connection to a database file: builds old schema versions, changes
// rows behind the store's back and checks what the store wrote.
class RawDatabase
{
public:
    explicit RawDatabase(const QString& file)
        : m_name(QStringLiteral("raw-") + QUuid::createUuid().toString(QUuid::WithoutBraces))
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), m_name);
        db.setDatabaseName(file);
        db.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=5000"));
        QDir().mkpath(QFileInfo(file).absolutePath());
        if (!db.open())
            qFatal("cannot open %s", qPrintable(file));
    }
    ~RawDatabase()
    {
        QSqlDatabase::database(m_name, false).close();
        QSqlDatabase::removeDatabase(m_name);
    }
    RawDatabase(const RawDatabase&) = delete;
    RawDatabase& operator=(const RawDatabase&) = delete;

    // Statements separated by ";" (none of the scripts quotes one); triggers go through
    // statement().
    bool exec(const QString& script, const QVariantList& values = {})
    {
        for (const QString& piece : script.split(QLatin1Char(';'), Qt::SkipEmptyParts)) {
            if (!piece.trimmed().isEmpty() && !statement(piece.trimmed(), values))
                return false;
        }
        return true;
    }

    bool statement(const QString& sql, const QVariantList& values = {})
    {
        QSqlQuery query(QSqlDatabase::database(m_name, false));
        query.prepare(sql);
        for (int i = 0; i < values.size(); ++i)
            query.bindValue(i, values.at(i));
        if (!query.exec()) {
            qWarning() << "raw statement failed:" << sql << query.lastError().text();
            return false;
        }
        return true;
    }

    QVariantList column(const QString& sql, const QVariantList& values = {}) const
    {
        QSqlQuery query(QSqlDatabase::database(m_name, false));
        query.prepare(sql);
        for (int i = 0; i < values.size(); ++i)
            query.bindValue(i, values.at(i));
        QVariantList result;
        if (!query.exec()) {
            qWarning() << "raw query failed:" << sql << query.lastError().text();
            return result;
        }
        while (query.next())
            result.append(query.value(0));
        return result;
    }

    QVariant scalar(const QString& sql, const QVariantList& values = {}) const
    {
        const QVariantList values0 = column(sql, values);
        return values0.isEmpty() ? QVariant() : values0.first();
    }

    QStringList strings(const QString& sql, const QVariantList& values = {}) const
    {
        QStringList result;
        for (const QVariant& value : column(sql, values))
            result.append(value.toString());
        return result;
    }

    int userVersion() const { return scalar(QStringLiteral("PRAGMA user_version")).toInt(); }

    QStringList objects(const char* type) const
    {
        QStringList names = strings(QStringLiteral("SELECT name FROM sqlite_master WHERE type = ? "
                                                   "AND name NOT LIKE 'sqlite_%'"),
                                    {QString::fromLatin1(type)});
        names.sort();
        return names;
    }

    QStringList columnsOf(const QString& table) const
    {
        return strings(QStringLiteral("SELECT name FROM pragma_table_info(?)"), {table});
    }

private:
    QString m_name;
};

// A temporary data directory holding device.json, local.db and the local root.
class StoreFixture
{
public:
    StoreFixture()
        : m_state(std::make_unique<vantro::AppState>(m_dir.filePath(QStringLiteral("device.json"))))
    {
        m_state->setLocalRoot(root());
    }

    QString path(const QString& relative) const { return m_dir.filePath(relative); }
    QString dbPath() const { return m_dir.filePath(QStringLiteral("data/local.db")); }
    QString root() const { return m_dir.filePath(QStringLiteral("root")); }
    vantro::AppState* state() const { return m_state.get(); }

    std::unique_ptr<vantro::LocalStore> makeStore() const
    {
        return std::make_unique<vantro::LocalStore>(m_state.get(), dbPath());
    }

    // Writes `size` bytes; sizes above a few KiB become sparse files so limits stay fast.
    QString writeFile(const QString& relative, qint64 size = 16,
                      const QByteArray& head = QByteArrayLiteral("%PDF-1.4\n")) const
    {
        const QString file = path(relative);
        QDir().mkpath(QFileInfo(file).absolutePath());
        QFile out(file);
        if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate))
            return {};
        out.write(head.left(size));
        out.resize(size);
        return file;
    }

private:
    QTemporaryDir m_dir;
    std::unique_ptr<vantro::AppState> m_state;
};

// Runs `call` and answers the text of the VantroError it threw, or "" when it did not throw.
inline QString errorOf(const std::function<void()>& call)
{
    try {
        call();
    } catch (const vantro::VantroError& error) {
        return error.text();
    }
    return {};
}

inline QString codeOf(const std::function<void()>& call)
{
    return vantro::splitErrorText(errorOf(call), QString()).code;
}

} // namespace storetest
