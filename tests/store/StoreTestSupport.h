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
using namespace vantro;

// A second, independent connection to a database file: builds old schema versions, changes
// rows behind the store's back and checks what the store wrote.
class RawDatabase
{
public:
    explicit RawDatabase(const QString& file)
        : m_name(QUuid::createUuid().toString())
    {
        QDir().mkpath(QFileInfo(file).absolutePath());
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), m_name);
        db.setDatabaseName(file);
        if (!db.open())
            qFatal("cannot open %s", qPrintable(file));
    }
    ~RawDatabase()
    {
        QSqlDatabase::database(m_name, false).close();
        QSqlDatabase::removeDatabase(m_name);
    }
    // Runs the ";"-separated statements, each bound to `values`, and answers the first column
    // of the last one's rows as text. A failing statement ends the test program.
    QStringList run(const QString& script, const QVariantList& values = {}) const
    {
        QStringList rows;
        for (const QString& sql : script.split(QLatin1Char(';'), Qt::SkipEmptyParts)) {
            QSqlQuery query(QSqlDatabase::database(m_name, false));
            query.prepare(sql);
            for (int i = 0; i < values.size(); ++i)
                query.bindValue(i, values.at(i));
            if (sql.trimmed().isEmpty())
                continue;
            if (!query.exec())
                qFatal("%s: %s", qPrintable(sql), qPrintable(query.lastError().text()));
            for (rows.clear(); query.next();)
                rows.append(query.value(0).toString());
        }
        return rows;
    }
    // One statement that may itself contain ";" (a trigger body).
    void execute(const QString& sql) const
    {
        QSqlQuery query(QSqlDatabase::database(m_name, false));
        if (!query.exec(sql))
            qFatal("%s: %s", qPrintable(sql), qPrintable(query.lastError().text()));
    }
    QString scalar(const QString& sql) const { return run(sql).value(0); }
    int count(const QString& from) const { return scalar("SELECT COUNT(*) FROM " + from).toInt(); }

private:
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
    AppState* state() { return &m_state; }
    std::unique_ptr<LocalStore> makeStore()
    {
        return std::make_unique<LocalStore>(&m_state, dbPath());
    }
    // Writes `size` bytes starting with a PDF header; large files are sparse so limits stay fast.
    QString writeFile(const QString& relative, qint64 size = 16) const
    {
        const QString file = path(relative);
        QDir().mkpath(QFileInfo(file).absolutePath());
        QFile out(file);
        if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate))
            return {};
        out.write(QByteArrayLiteral("%PDF-1.4\n").left(size));
        return out.resize(size) ? file : QString();
    }

    // Writes `content` to a file inside the local root, creating its folders.
    QString put(const QString& inRootPath, const QByteArray& content = "%PDF-1.4\n") const
    {
        const QString file = inRoot(inRootPath);
        QDir().mkpath(QFileInfo(file).absolutePath());
        QFile out(file);
        if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
            out.write(content) != content.size())
            qFatal("cannot write %s", qPrintable(file));
        return file;
    }

private:
    QTemporaryDir m_dir;
    AppState m_state{m_dir.filePath(QStringLiteral("device.json"))};
};

// A fresh fixture and a store on it for each test: init() calls renew(), cleanup() clear();
// the store's connection closes before its directory goes.
struct StoreCase
{
    std::unique_ptr<StoreFixture> fx;
    std::unique_ptr<LocalStore> store;
    void renew()
    {
        clear();
        fx = std::make_unique<StoreFixture>();
        store = fx->makeStore();
    }
    void clear()
    {
        store.reset();
        fx.reset();
    }
};

inline LocalFileDescriptor fileNamed(const QString& name)
{
    return {"/root/" + name, name, name, name.section('.', 0, 0), 1234, "c", "application/pdf"};
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
        result << fields(row.toObject(), key);
    return result;
}

// The error code of the VantroError `call` threw, or "" when it did not throw.
inline QString codeOf(const std::function<void()>& call)
{
    try {
        call();
    } catch (const VantroError& error) {
        return splitErrorText(error.text(), QString()).code;
    }
    return {};
}

} // namespace storetest
