#include "DevStore.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QSqlError>
#include <QSqlQuery>
#include <QTextStream>
#include <QUuid>

namespace vantro::dev {

namespace {

constexpr qint64 kCodeLifetimeSecs = 30ll * 24 * 3600;

qint64 now()
{
    return QDateTime::currentSecsSinceEpoch();
}

QString randomCode()
{
    static const char alphabet[] = "ABCDEFGHJKLMNPQRSTUVWXYZ23456789";
    QString code;
    for (int i = 0; i < 8; ++i) {
        if (i == 4)
            code += QLatin1Char('-');
        code +=
            QLatin1Char(alphabet[QRandomGenerator::global()->bounded(int(sizeof alphabet) - 1)]);
    }
    return code;
}

QString randomSecret()
{
    QByteArray bytes(32, Qt::Uninitialized);
    QRandomGenerator::system()->fillRange(reinterpret_cast<quint32*>(bytes.data()), 8);
    return QString::fromLatin1(
        bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

} // namespace

DevStore::DevStore(const QString& databasePath)
    : m_connection(QStringLiteral("dev-store-") + QUuid::createUuid().toString(QUuid::Id128))
{
    m_db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), m_connection);
    m_db.setDatabaseName(databasePath);
    m_open = m_db.open() &&
             exec("CREATE TABLE IF NOT EXISTS activation_codes (code TEXT PRIMARY KEY, "
                  "expires_at INTEGER NOT NULL, used_by TEXT)") &&
             exec("CREATE TABLE IF NOT EXISTS devices (id TEXT PRIMARY KEY, secret TEXT NOT NULL, "
                  "name TEXT, activated_at INTEGER NOT NULL)") &&
             exec("CREATE TABLE IF NOT EXISTS heartbeats (id INTEGER PRIMARY KEY, device_id "
                  "TEXT, body TEXT, received_at INTEGER NOT NULL)") &&
             exec("CREATE TABLE IF NOT EXISTS documents (id INTEGER PRIMARY KEY, title TEXT, "
                  "sha256 TEXT NOT NULL, size INTEGER NOT NULL, received_at INTEGER NOT NULL, "
                  "signed_sha256 TEXT)") &&
             exec("CREATE TABLE IF NOT EXISTS acknowledgements (id INTEGER PRIMARY KEY, "
                  "device_id TEXT, body TEXT, received_at INTEGER NOT NULL)") &&
             exec("CREATE TABLE IF NOT EXISTS invitations (id INTEGER PRIMARY KEY, document_id "
                  "TEXT NOT NULL, body TEXT NOT NULL, status TEXT NOT NULL, reminders INTEGER "
                  "NOT NULL DEFAULT 0)");
    // A code that has run out, to show the refusal.
    if (m_open)
        exec("INSERT OR IGNORE INTO activation_codes (code, expires_at) VALUES ('DEMO-OLD1', 1)");
}

DevStore::~DevStore()
{
    m_db.close();
    m_db = QSqlDatabase();
    QSqlDatabase::removeDatabase(m_connection);
}

bool DevStore::exec(const QString& sql, const QVariantList& values)
{
    QSqlQuery query(m_db);
    query.prepare(sql);
    for (const QVariant& value : values)
        query.addBindValue(value);
    if (query.exec())
        return true;
    QTextStream(stderr) << "vantro-dev-service: database: " << query.lastError().text() << "\n";
    return false;
}

QVariant DevStore::scalar(const QString& sql, const QVariantList& values)
{
    QSqlQuery query(m_db);
    query.prepare(sql);
    for (const QVariant& value : values)
        query.addBindValue(value);
    return query.exec() && query.next() ? query.value(0) : QVariant();
}

void DevStore::addCode(const QString& code, qint64 expiresAt)
{
    exec(QStringLiteral("INSERT OR IGNORE INTO activation_codes (code, expires_at) VALUES (?, ?)"),
         {code, expiresAt});
}

QStringList DevStore::activationCodes()
{
    const QString open = QStringLiteral(
        "SELECT code FROM activation_codes WHERE used_by IS NULL AND expires_at > ? ORDER BY code");
    if (scalar(open, {now()}).isNull()) {
        for (int i = 0; i < 3; ++i)
            addCode(randomCode(), now() + kCodeLifetimeSecs);
    }
    QSqlQuery query(m_db);
    query.prepare(open);
    query.addBindValue(now());
    QStringList codes;
    if (query.exec())
        while (query.next())
            codes << query.value(0).toString();
    return codes;
}

DevStore::CodeState DevStore::codeState(const QString& code)
{
    QSqlQuery query(m_db);
    query.prepare(
        QStringLiteral("SELECT expires_at, used_by FROM activation_codes WHERE code = ?"));
    query.addBindValue(code);
    if (!query.exec() || !query.next())
        return CodeState::Unknown;
    if (!query.value(1).isNull())
        return CodeState::Used;
    return query.value(0).toLongLong() <= now() ? CodeState::Expired : CodeState::Valid;
}

QJsonObject DevStore::registerDevice(const QString& code, const QString& deviceName)
{
    const QString id = QStringLiteral("dev-") + QUuid::createUuid().toString(QUuid::Id128);
    const QString secret = randomSecret();
    m_db.transaction();
    const bool stored =
        exec(
            QStringLiteral("INSERT INTO devices (id, secret, name, activated_at) VALUES (?,?,?,?)"),
            {id, secret, deviceName, now()}) &&
        exec(QStringLiteral("UPDATE activation_codes SET used_by = ? WHERE code = ?"), {id, code});
    if (!stored || !m_db.commit()) {
        m_db.rollback();
        return {};
    }
    return {{"device_id", id}, {"device_secret", secret}};
}

bool DevStore::isDevice(const QString& deviceId, const QString& secret)
{
    return scalar(QStringLiteral("SELECT secret FROM devices WHERE id = ?"), {deviceId})
                   .toString() == secret &&
           !secret.isEmpty();
}

void DevStore::recordHeartbeat(const QString& deviceId, const QByteArray& body)
{
    exec(QStringLiteral("INSERT INTO heartbeats (device_id, body, received_at) VALUES (?,?,?)"),
         {deviceId, QString::fromUtf8(body), now()});
}

int DevStore::heartbeatCount()
{
    return scalar(QStringLiteral("SELECT COUNT(*) FROM heartbeats")).toInt();
}

int DevStore::recordUpload(const QString& title, const QString& sha256, qint64 size)
{
    exec(
        QStringLiteral("INSERT INTO documents (title, sha256, size, received_at) VALUES (?,?,?,?)"),
        {title, sha256, size, now()});
    return scalar(QStringLiteral("SELECT MAX(id) FROM documents")).toInt();
}

QJsonObject DevStore::document(int id)
{
    QSqlQuery query(m_db);
    query.prepare(
        QStringLiteral("SELECT title, sha256, size, signed_sha256 FROM documents WHERE id = ?"));
    query.addBindValue(id);
    if (!query.exec() || !query.next())
        return {};
    return {{"title", query.value(0).toString()},
            {"sha256", query.value(1).toString()},
            {"size", query.value(2).toLongLong()},
            {"signed_sha256", query.value(3).toString()}};
}

bool DevStore::markSigned(int id, const QString& signedSha256)
{
    return exec(QStringLiteral("UPDATE documents SET signed_sha256 = ? WHERE id = ?"),
                {signedSha256, id});
}

void DevStore::recordAcknowledgement(const QString& deviceId, const QJsonObject& body)
{
    exec(QStringLiteral(
             "INSERT INTO acknowledgements (device_id, body, received_at) VALUES (?,?,?)"),
         {deviceId, QString::fromUtf8(QJsonDocument(body).toJson(QJsonDocument::Compact)), now()});
}

int DevStore::acknowledgementCount()
{
    return scalar(QStringLiteral("SELECT COUNT(*) FROM acknowledgements")).toInt();
}

namespace {

QJsonObject invitationJson(const QSqlQuery& row)
{
    QJsonObject invitation = QJsonDocument::fromJson(row.value(2).toString().toUtf8()).object();
    invitation.insert("id", QStringLiteral("inv-%1").arg(row.value(0).toInt()));
    invitation.insert("document_id", row.value(1).toString());
    invitation.insert("status", row.value(3).toString());
    invitation.insert("reminders", row.value(4).toInt());
    return invitation;
}

const char kInvitationColumns[] =
    "SELECT id, document_id, body, status, reminders FROM invitations";

} // namespace

QJsonObject DevStore::createInvitation(const QString& documentId, const QJsonObject& fields)
{
    if (!exec(
            QStringLiteral(
                "INSERT INTO invitations (document_id, body, status) VALUES (?, ?, 'PENDING')"),
            {documentId, QString::fromUtf8(QJsonDocument(fields).toJson(QJsonDocument::Compact))}))
        return {};
    return updateInvitation(scalar(QStringLiteral("SELECT MAX(id) FROM invitations")).toInt(), {});
}

QJsonArray DevStore::invitations(const QString& documentId)
{
    QSqlQuery query(m_db);
    query.prepare(QString::fromLatin1(kInvitationColumns) +
                  (documentId.isEmpty() ? QString() : QStringLiteral(" WHERE document_id = ?")) +
                  QStringLiteral(" ORDER BY id"));
    if (!documentId.isEmpty())
        query.addBindValue(documentId);
    QJsonArray all;
    if (query.exec())
        while (query.next())
            all.append(invitationJson(query));
    return all;
}

QJsonObject DevStore::updateInvitation(int id, const QString& action)
{
    if (action == QLatin1String("cancel"))
        exec(QStringLiteral("UPDATE invitations SET status = 'CANCELLED' WHERE id = ?"), {id});
    else if (action == QLatin1String("remind"))
        exec(QStringLiteral("UPDATE invitations SET reminders = reminders + 1 WHERE id = ?"), {id});
    QSqlQuery query(m_db);
    query.prepare(QString::fromLatin1(kInvitationColumns) + QStringLiteral(" WHERE id = ?"));
    query.addBindValue(id);
    return query.exec() && query.next() ? invitationJson(query) : QJsonObject();
}

} // namespace vantro::dev
