#include "artifacts/MirrorQueue.h"

#include "api/SignApiClient.h"
#include "app/Errors.h"
#include "app/FileHash.h"
#include "artifacts/Logging.h"
#include "store/LocalFiles.h"
#include "store/LocalStore.h"
#include "store/RootRules.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QUuid>

namespace vantro {

namespace {

const QString kAcknowledged = QStringLiteral("ACKNOWLEDGED");

QString text(const QVariantMap& map, const char* key)
{
    return map.value(QLatin1String(key)).toString().trimmed();
}

QString column(const QJsonObject& row, const char* key)
{
    return idText(row.value(QLatin1String(key)));
}

// The row's facts in the descriptor's camel-case keys.
QVariantMap descriptorOf(const QJsonObject& row)
{
    static const QList<QPair<const char*, const char*>> kKeys{
        {"artifactId", "artifact_id"},
        {"localDocumentId", "local_document_id"},
        {"serverDocumentId", "server_document_id"},
        {"serverVersionId", "server_version_id"},
        {"downloadUrl", "download_url"},
        {"expectedSha256", "expected_sha256"},
        {"relativePath", "relative_path"},
        {"outputKind", "output_kind"},
        {"documentStatus", "document_status"},
        {"mimeType", "mime_type"},
        {"serverJobId", "server_job_id"},
    };
    QVariantMap out;
    for (const auto& [camel, snake] : kKeys)
        out.insert(QLatin1String(camel), column(row, snake));
    return out;
}

// A service that no longer has the file, or the document, will not have it on a later try.
bool isExpired(const QString& error)
{
    for (const char* marker : {"VANTRO_SIGN_DOWNLOAD_FAILED_404", "VANTRO_SIGN_DOWNLOAD_FAILED_410",
                               "SIGN_DOCUMENT_NOT_FOUND", "SIGN_DOCUMENT_VERSION_NOT_FOUND"})
        if (error.contains(QLatin1String(marker)))
            return true;
    return false;
}

bool isComplete(const QVariantMap& descriptor)
{
    return !text(descriptor, "artifactId").isEmpty() &&
           !text(descriptor, "downloadUrl").isEmpty() &&
           !text(descriptor, "relativePath").isEmpty();
}

void requireComplete(const QVariantMap& descriptor)
{
    if (!isComplete(descriptor))
        throw CodedError(QStringLiteral("VANTRO_SIGN_MIRROR_DESCRIPTOR_INCOMPLETE"),
                         QStringLiteral("Mirror descriptor is incomplete."));
}

[[noreturn]] void outsideRoot()
{
    throw CodedError(QStringLiteral("VANTRO_SIGN_MIRROR_PATH_OUTSIDE_ROOT"),
                     QStringLiteral("Mirror target path is outside the local root."));
}

QString insideRoot(const QString& root, const QString& path)
{
    if (!rootrules::isPhysicallyInside(root, path))
        outsideRoot();
    return path;
}

OrderedObject mirrorResult(const QString& artifactId, const QString& root, const QString& path,
                           const QString& sha256)
{
    return OrderedObject{
        {QStringLiteral("artifactId"), artifactId},
        {QStringLiteral("status"), QStringLiteral("MIRRORED")},
        {QStringLiteral("path"), path},
        {QStringLiteral("relativePath"), rootrules::relativePathInRoot(root, path)},
        {QStringLiteral("sha256"), sha256}};
}

} // namespace

MirrorQueue::MirrorQueue(LocalStore& store, SignApiClient& api)
    : m_store(store)
    , m_api(api)
{
}

QString MirrorQueue::targetPath(const QString& root, const QString& relativePath)
{
    const QString fallback = QString::fromLatin1(rootrules::kFallbackFileName);
    QStringList pieces;
    for (const QString& piece : relativePath.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        const QString clean = rootrules::cleanFileName(piece, fallback);
        if (!clean.isEmpty())
            pieces << clean;
    }
    if (pieces.isEmpty())
        pieces = QStringList{QString::fromLatin1(rootrules::kSignedFolder), fallback};
    if (QFileInfo(pieces.last()).suffix().isEmpty())
        pieces.last() += QStringLiteral(".pdf");
    return insideRoot(root, QDir(root).filePath(pieces.join(QLatin1Char('/'))));
}

OrderedObject MirrorQueue::mirrorStep(const QVariantMap& descriptor)
{
    requireComplete(descriptor);
    const QString artifactId = text(descriptor, "artifactId");
    const QByteArray bytes =
        m_api.downloadFile(text(descriptor, "downloadUrl"), SignApiClient::kTransferTimeoutMs);
    const QString sha256 = sha256Hex(bytes);
    const QString expected = text(descriptor, "expectedSha256");
    if (!expected.isEmpty() && expected != sha256)
        throw CodedError(QStringLiteral("VANTRO_SIGN_MIRROR_HASH_MISMATCH"),
                         QStringLiteral("Downloaded artifact hash did not match."));

    const QString root = m_store.localRoot();
    QString target = targetPath(root, text(descriptor, "relativePath"));
    const bool present = QFileInfo::exists(target);
    const bool same = present && sha256File(target) == sha256;
    if (present && !same)
        target = insideRoot(root, rootrules::uniquePath(target));
    if (!same) {
        try {
            localfiles::writeNewFile(target, bytes);
        } catch (const VantroError& error) {
            // The page is told the file system's own words (after the store's code).
            throw CodedError(QStringLiteral("VANTRO_SIGN_MIRROR_WRITE_FAILED"),
                             error.text().section(QStringLiteral(": "), 1));
        }
    }
    const QString documentId = text(descriptor, "serverDocumentId");
    m_store.upsertLocalArtifact(
        {{QStringLiteral("artifactId"), artifactId},
         {QStringLiteral("path"), target},
         {QStringLiteral("sha256"), sha256},
         {QStringLiteral("kind"), QStringLiteral("signed")},
         {QStringLiteral("documentId"),
          documentId.isEmpty() ? text(descriptor, "localDocumentId") : documentId}});
    qCInfo(lcArtifacts) << "mirrored" << artifactId << "to" << target << (same ? "(kept)" : "");
    return mirrorResult(artifactId, root, target, sha256);
}

// A placeholder document reserved its current version's id for exactly this file.
QString MirrorQueue::versionIdFor(const QString& localDocumentId)
{
    const QString reserved = column(m_store.getDocument(localDocumentId), "current_version_id");
    if (!reserved.isEmpty() && m_store.getVersion(reserved).isEmpty())
        return reserved;
    return QUuid::createUuid().toString(QUuid::WithoutBraces);
}

QJsonObject MirrorQueue::mirrorRow(const QJsonObject& row, OrderedObject* mirrored)
{
    const QVariantMap descriptor = descriptorOf(row);
    const OrderedObject result = mirrorStep(descriptor);
    const QString path = result.value(QStringLiteral("path")).toString();
    const QString sha256 = result.value(QStringLiteral("sha256")).toString();
    const QString kind = text(descriptor, "outputKind");
    const QJsonObject version = m_store.addVersion({
        {QStringLiteral("id"), versionIdFor(text(descriptor, "localDocumentId"))},
        {QStringLiteral("documentId"), text(descriptor, "localDocumentId")},
        {QStringLiteral("serverDocumentId"), text(descriptor, "serverDocumentId")},
        {QStringLiteral("serverVersionId"), text(descriptor, "serverVersionId")},
        {QStringLiteral("kind"), kind.isEmpty() ? QStringLiteral("SIGNED") : kind},
        {QStringLiteral("path"), path},
        {QStringLiteral("relativePath"), result.value(QStringLiteral("relativePath"))},
        {QStringLiteral("sha256"), sha256},
        {QStringLiteral("sizeBytes"), QFileInfo(path).size()},
        {QStringLiteral("mimeType"), text(descriptor, "mimeType")},
        {QStringLiteral("status"), text(descriptor, "documentStatus")},
    });
    if (mirrored)
        *mirrored = result;
    return m_store.updateMirrorItem(column(row, "id"),
                                    {{QStringLiteral("status"), QStringLiteral("MIRRORED")},
                                     {QStringLiteral("local_version_id"), column(version, "id")},
                                     {QStringLiteral("local_path"), path},
                                     {QStringLiteral("mirrored_sha256"), sha256},
                                     {QStringLiteral("last_error"), QString()}});
}

QJsonObject MirrorQueue::process(const QString& id, OrderedObject* mirrored)
{
    QJsonObject row = m_store.getMirrorItem(id);
    if (column(row, "status") == kAcknowledged)
        return row;
    try {
        row = m_store.updateMirrorItem(id, {{QStringLiteral("status"), QStringLiteral("RUNNING")},
                                            {QStringLiteral("last_error"), QString()},
                                            {QStringLiteral("incrementAttempts"), true}});
        // A row mirrored before a crash or a failed acknowledgement is not downloaded again.
        if (column(row, "local_version_id").isEmpty())
            row = mirrorRow(row, mirrored);
        acknowledgeDelivery(column(row, "server_document_id"), column(row, "server_version_id"),
                            column(row, "mirrored_sha256"));
        return m_store.updateMirrorItem(id, {{QStringLiteral("status"), kAcknowledged},
                                             {QStringLiteral("last_error"), QString()}});
    } catch (const std::exception& failure) {
        const QString error = QString::fromUtf8(failure.what());
        qCWarning(lcArtifacts).noquote()
            << "mirror of" << id << "failed:" << describeFailure(failure);
        try {
            m_store.updateMirrorItem(
                id, {{QStringLiteral("status"), isExpired(error) ? QStringLiteral("EXPIRED_PURGED")
                                                                 : QStringLiteral("FAILED")},
                     {QStringLiteral("last_error"), error}});
        } catch (const std::exception& notSaved) {
            qCWarning(lcArtifacts) << "mirror row state not saved:" << notSaved.what();
        }
        throw;
    }
}

OrderedObject MirrorQueue::mirrorArtifact(const QVariantMap& descriptor)
{
    // Checked before queueing: an incomplete descriptor leaves no row behind.
    requireComplete(descriptor);
    const QJsonObject queued = m_store.enqueueMirrorItem(descriptor);
    OrderedObject mirrored;
    const QJsonObject row = process(column(queued, "id"), &mirrored);
    if (!mirrored.isEmpty())
        return mirrored;
    // Mirrored on an earlier run: the file is already in the root.
    return mirrorResult(column(row, "artifact_id"), m_store.localRoot(), column(row, "local_path"),
                        column(row, "mirrored_sha256"));
}

OrderedObject MirrorQueue::retry()
{
    const QJsonArray rows = m_store.listOpenMirrorItems();
    int acknowledged = 0;
    int expired = 0;
    QVariantList errors;
    for (const QJsonValue& value : rows) {
        const QJsonObject row = value.toObject();
        try {
            process(column(row, "id"), nullptr);
            ++acknowledged;
        } catch (const std::exception& failure) {
            const QString error = QString::fromUtf8(failure.what());
            expired += isExpired(error) ? 1 : 0;
            errors << OrderedObject{
                {QStringLiteral("artifactId"), column(row, "artifact_id")},
                {QStringLiteral("error"),
                 error}}.toVariant();
        }
    }
    return OrderedObject{{QStringLiteral("attempted"), rows.size()},
                         {QStringLiteral("acknowledged"), acknowledged},
                         {QStringLiteral("expiredPurged"), expired},
                         {QStringLiteral("failed"), errors.size() - expired},
                         {QStringLiteral("errors"), errors}};
}

OrderedObject MirrorQueue::status(const QString& artifactId)
{
    const QJsonObject row = m_store.getMirrorItem(artifactId);
    if (row.isEmpty())
        return OrderedObject{{QStringLiteral("artifactId"), artifactId},
                             {QStringLiteral("status"), QStringLiteral("UNKNOWN")},
                             {QStringLiteral("lastError"), QString()}};
    return OrderedObject{{QStringLiteral("artifactId"), column(row, "artifact_id")},
                         {QStringLiteral("status"), column(row, "status")},
                         {QStringLiteral("lastError"), column(row, "last_error")}};
}

void MirrorQueue::acknowledgeDelivery(const QString& serverDocumentId,
                                      const QString& serverVersionId, const QString& sha256)
{
    m_api.postJson(QStringLiteral("/delivery/ack"),
                   QJsonObject{{QStringLiteral("document_id"), serverDocumentId},
                               {QStringLiteral("version_id"), serverVersionId},
                               {QStringLiteral("sha256"), sha256}});
}

} // namespace vantro
