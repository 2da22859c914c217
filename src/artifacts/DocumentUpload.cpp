#include "artifacts/DocumentUpload.h"

#include "api/SignApiClient.h"
#include "app/Errors.h"
#include "app/FileHash.h"
#include "artifacts/Logging.h"
#include "store/LocalStore.h"
#include "store/RootRules.h"

#include <QFileInfo>
#include <QJsonValue>

namespace vantro {

namespace {

[[noreturn]] void documentNotFound()
{
    throw CodedError(QStringLiteral("VANTRO_SIGN_LOCAL_DOCUMENT_NOT_FOUND"),
                     QStringLiteral("Local document was not found."));
}

QString member(const QJsonObject& object, const char* key)
{
    return idText(object.value(QLatin1String(key)));
}

} // namespace

DocumentUpload::DocumentUpload(LocalStore& store, SignApiClient& api)
    : m_store(store)
    , m_api(api)
{
}

DocumentUpload::Source DocumentUpload::resolve(const QString& handle)
{
    const QJsonObject version = m_store.getVersion(handle);
    if (version.isEmpty()) {
        const OrderedObject file = m_store.hashFileHandle(handle);
        return {{},
                file.value(QStringLiteral("path")).toString(),
                file.value(QStringLiteral("name")).toString(),
                file.value(QStringLiteral("sha256")).toString()};
    }
    const QString path = member(version, "path");
    if (!rootrules::isPhysicallyInside(m_store.localRoot(), path))
        fail(QStringLiteral("VANTRO_SIGN_PATH_OUTSIDE_ROOT"), path);
    // Hashed again: the service checks the digest against the bytes it receives now.
    return {handle, path, QFileInfo(path).fileName(), sha256File(path)};
}

OrderedObject DocumentUpload::queueUpload(const QString& handle, const QJsonObject& intent)
{
    const Source source = resolve(handle);
    const QJsonObject response = m_api.uploadFile(source.path, source.name, source.sha256, intent,
                                                  SignApiClient::kTransferTimeoutMs);
    const QJsonObject document = response.value(QLatin1String("document")).toObject();
    const QJsonObject latest = document.value(QLatin1String("latest_version")).toObject();
    const QString artifactId = member(latest, "id");
    if (!artifactId.isEmpty()) {
        const QString documentId = member(document, "id");
        m_store.markUploaded(source.versionId, document,
                             {{QStringLiteral("artifactId"), artifactId},
                              {QStringLiteral("path"), source.path},
                              {QStringLiteral("sha256"), source.sha256},
                              {QStringLiteral("kind"), QStringLiteral("uploaded")},
                              {QStringLiteral("documentId"), documentId}});
        qCInfo(lcArtifacts) << "uploaded" << source.versionId << "as" << documentId;
    } else {
        qCWarning(lcArtifacts) << "upload answered without a version id; nothing recorded";
    }
    OrderedObject out;
    for (auto it = response.constBegin(); it != response.constEnd(); ++it)
        out.insert(it.key(), it.value().toVariant());
    out.insert(QStringLiteral("sha256"), source.sha256);
    out.insert(QStringLiteral("name"), source.name);
    out.insert(QStringLiteral("path"), source.path);
    out.insert(QStringLiteral("latest_version"), latest.toVariantMap());
    out.insert(QStringLiteral("artifactId"), artifactId);
    return out;
}

OrderedObject DocumentUpload::uploadLocalDocument(const QString& documentId)
{
    const QJsonObject document = m_store.getDocument(documentId);
    const QJsonObject version =
        document.isEmpty() ? QJsonObject() : m_store.getCurrentVersion(documentId);
    if (version.isEmpty())
        documentNotFound();
    return queueUpload(member(version, "id"),
                       {{QStringLiteral("title"), document.value(QLatin1String("title"))}});
}

QJsonObject DocumentUpload::ensureServerDocument(const QString& documentId)
{
    const QJsonObject document = m_store.getDocument(documentId);
    if (document.isEmpty())
        documentNotFound();
    if (!member(document, "server_document_id").isEmpty())
        return document;
    if (!uploadLocalDocument(documentId).value(QStringLiteral("ok")).toBool())
        fail(QStringLiteral("VANTRO_SIGN_UPLOAD_FAILED"));
    const QJsonObject uploaded = m_store.getDocument(documentId);
    if (member(uploaded, "server_document_id").isEmpty())
        fail(QStringLiteral("VANTRO_SIGN_UPLOAD_DID_NOT_RETURN_SERVER_DOCUMENT"));
    return uploaded;
}

} // namespace vantro
