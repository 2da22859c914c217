#pragma once

#include "app/AppState.h"
#include "app/Errors.h"
#include "store/LocalStore.h"

#include <QDir>
#include <QFile>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QtTest>
#include <QUuid>

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

    // Statements separated by ";", except a trigger, whose body holds ";" and runs as one.
    bool exec(const QString& script, const QVariantList& values = {})
    {
        const bool whole = script.contains(QLatin1String("CREATE TRIGGER"));
        for (const QString& piece : whole ? QStringList{script} : script.split(QLatin1Char(';'))) {
            if (!piece.trimmed().isEmpty() && !run(piece.trimmed(), values).isActive())
                return false;
        }
        return true;
    }
    // First column of every row, as text.
    QStringList column(const QString& sql, const QVariantList& values = {}) const
    {
        QSqlQuery query = run(sql, values);
        QStringList result;
        while (query.next())
            result.append(query.value(0).toString());
        return result;
    }
    QString scalar(const QString& sql) const { return column(sql).value(0); }
    int count(const QString& table) const
    {
        return scalar("SELECT COUNT(*) FROM " + table).toInt();
    }
    int userVersion() const { return scalar(QStringLiteral("PRAGMA user_version")).toInt(); }

private:
    QSqlQuery run(const QString& sql, const QVariantList& values) const
    {
        QSqlQuery query(QSqlDatabase::database(m_name, false));
        query.prepare(sql);
        for (int i = 0; i < values.size(); ++i)
            query.bindValue(i, values.at(i));
        if (!query.exec())
            qWarning() << "raw statement failed:" << sql << query.lastError().text();
        return query;
    }
    QString m_name;
};

// A temporary data directory holding device.json, local.db and the local root.
class StoreFixture
{
public:
    StoreFixture() { m_state.setLocalRoot(root()); }

    QString path(const QString& relative) const { return m_dir.filePath(relative); }
    QString dbPath() const { return path(QStringLiteral("data/local.db")); }
    QString root() const { return path(QStringLiteral("root")); }
    QString inRoot(const QString& relative) const { return root() + QLatin1Char('/') + relative; }
    vantro::AppState* state() { return &m_state; }
    std::unique_ptr<vantro::LocalStore> makeStore()
    {
        return std::make_unique<vantro::LocalStore>(&m_state, dbPath());
    }

    // Writes `size` bytes starting with `head`; large files are sparse so limits stay fast.
    QString writeFile(const QString& relative, qint64 size = 16,
                      const QByteArray& head = QByteArrayLiteral("%PDF-1.4\n")) const
    {
        const QString file = path(relative);
        QDir().mkpath(QFileInfo(file).absolutePath());
        QFile out(file);
        if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate))
            return {};
        out.write(head.left(size));
        return out.resize(size) ? file : QString();
    }

private:
    QTemporaryDir m_dir;
    vantro::AppState m_state{m_dir.filePath(QStringLiteral("device.json"))};
};

inline vantro::LocalFileDescriptor fileNamed(const QString& name)
{
    return {QStringLiteral("/root/") + name,  name, name,
            name.section('.', 0, 0),          1234, QString(64, QLatin1Char('c')),
            QStringLiteral("application/pdf")};
}

inline QString str(const QJsonObject& object, const char* key)
{
    return object.value(QLatin1String(key)).toString();
}

// Values of the space-separated keys joined by "|"; "~" marks an absent key.
inline QString fields(const QJsonObject& object, const char* keys)
{
    QStringList values;
    for (const QString& key : QString::fromLatin1(keys).split(QLatin1Char(' ')))
        values << (object.contains(key) ? object.value(key).toVariant().toString() : "~");
    return values.join(QLatin1Char('|'));
}

inline QStringList column(const QJsonArray& rows, const char* key = "id")
{
    QStringList result;
    for (const QJsonValue& row : rows)
        result << str(row.toObject(), key);
    return result;
}

// The text of the VantroError `call` threw, or "" when it did not throw.
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
