#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QSqlDatabase>
#include <QString>
#include <QStringList>

namespace vantro::dev {

// The stand-in's own state in SQLite: activation codes, devices, uploaded documents and
// heartbeats. Deleting the file resets the service.
class DevStore
{
public:
    explicit DevStore(const QString& databasePath);
    ~DevStore();
    DevStore(const DevStore&) = delete;
    DevStore& operator=(const DevStore&) = delete;

    bool isOpen() const { return m_open; }

    // Unused, unexpired codes; three fresh ones are made when none is left.
    QStringList activationCodes();

    enum class CodeState { Unknown, Expired, Used, Valid };
    CodeState codeState(const QString& code);
    // Marks the code used and records a new device; answers {device_id, device_secret}.
    QJsonObject registerDevice(const QString& code, const QString& deviceName);
    bool isDevice(const QString& deviceId, const QString& secret);

    void recordHeartbeat(const QString& deviceId, const QByteArray& body);
    int heartbeatCount();
    // Answers the new document's number.
    int recordUpload(const QString& title, const QString& sha256, qint64 size);
    // {title, sha256, size, signed_sha256}; empty for an unknown document.
    QJsonObject document(int id);
    bool markSigned(int id, const QString& signedSha256);
    void recordAcknowledgement(const QString& deviceId, const QJsonObject& body);
    int acknowledgementCount();

    // External invitations: the caller's fields kept as given, with id, document_id, status
    // ("PENDING", "CANCELLED") and reminders added.
    QJsonObject createInvitation(const QString& documentId, const QJsonObject& fields);
    // Every invitation, or a document's when `documentId` is not empty.
    QJsonArray invitations(const QString& documentId);
    // Applies "cancel" or "remind"; empty for an unknown invitation.
    QJsonObject updateInvitation(int id, const QString& action);

private:
    bool exec(const QString& sql, const QVariantList& values = {});
    QVariant scalar(const QString& sql, const QVariantList& values = {});
    void addCode(const QString& code, qint64 expiresAt);

    QString m_connection;
    QSqlDatabase m_db;
    bool m_open = false;
};

} // namespace vantro::dev
