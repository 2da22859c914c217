#pragma once

#include "app/OrderedJson.h"

#include <QJsonObject>
#include <QString>
#include <QVariantMap>

namespace vantro {

class LocalStore;
class SignApiClient;

// Brings files the service produced (signed results above all) into the local root as new local
// versions and tells the service they arrived. Every expected file is a durable queue row,
// retried until it is acknowledged or the service no longer has it.
class MirrorQueue
{
public:
    MirrorQueue(LocalStore& store, SignApiClient& api);

    // Queues the descriptor (camel-case keys) and processes its row at once; answers the mirror
    // result {artifactId, status, path, relativePath, sha256}. The mirror's own failures reach
    // the page with their code and message; the row keeps the error either way.
    OrderedObject mirrorArtifact(const QVariantMap& descriptor);
    // Processes every open row, oldest first; one failure does not stop the others. Answers
    // {attempted, acknowledged, expiredPurged, failed, errors}.
    OrderedObject retry();
    // {artifactId, status, lastError}; status "UNKNOWN" when no row has that id or artifact id.
    OrderedObject status(const QString& artifactId);
    void acknowledgeDelivery(const QString& serverDocumentId, const QString& serverVersionId,
                             const QString& sha256);

    // Where a root-relative target lands: pieces cleaned, empty ones dropped, ".pdf" added to a
    // last piece without a suffix, "Pasirasyta/Vantro_dokumentas.pdf" when nothing is left.
    // Throws VANTRO_SIGN_MIRROR_PATH_OUTSIDE_ROOT when the result (links followed) is not inside.
    static QString targetPath(const QString& root, const QString& relativePath);

private:
    OrderedObject mirrorStep(const QVariantMap& descriptor);
    // Runs one row to "ACKNOWLEDGED"; `mirrored` receives the mirror result when the file was
    // written in this run. A failure marks the row and is rethrown.
    QJsonObject process(const QString& id, OrderedObject* mirrored);
    QJsonObject mirrorRow(const QJsonObject& row, OrderedObject* mirrored);
    QString versionIdFor(const QString& localDocumentId);

    LocalStore& m_store;
    SignApiClient& m_api;
};

} // namespace vantro
