#include "artifacts/ExternalInvitations.h"

#include "api/SignApiClient.h"
#include "app/OrderedJson.h"
#include "artifacts/DocumentUpload.h"
#include "store/LocalStore.h"

namespace vantro {

namespace {

const QString kServerDocumentId = QStringLiteral("server_document_id");

QString documentInvitesPath(const QString& serverDocumentId)
{
    return QStringLiteral("/documents/%1/external-invites").arg(serverDocumentId);
}

QJsonValue invitationOf(const QJsonObject& answer)
{
    return answer.value(QLatin1String("invitation"));
}

} // namespace

ExternalInvitations::ExternalInvitations(LocalStore& store, SignApiClient& api)
    : m_store(store)
    , m_api(api)
{
}

QJsonArray ExternalInvitations::list(const QString& documentId)
{
    QString serverId;
    if (!documentId.isEmpty()) {
        const QJsonObject document = m_store.getDocument(documentId);
        // A present but empty service id means "not on the service yet", not "use the id".
        serverId = document.contains(kServerDocumentId) ? idText(document.value(kServerDocumentId))
                                                        : documentId;
    }
    const QJsonObject answer = m_api.getJson(
        serverId.isEmpty() ? QStringLiteral("/external-invites") : documentInvitesPath(serverId));
    return answer.value(QLatin1String("invitations")).toArray();
}

QJsonValue ExternalInvitations::create(const QString& documentId, const QJsonObject& input)
{
    const QJsonObject document = DocumentUpload(m_store, m_api).ensureServerDocument(documentId);
    return invitationOf(
        m_api.postJson(documentInvitesPath(idText(document.value(kServerDocumentId))), input));
}

QJsonValue ExternalInvitations::cancel(const QString& invitationId)
{
    return invitationAction(invitationId, "cancel");
}

QJsonValue ExternalInvitations::remind(const QString& invitationId)
{
    return invitationAction(invitationId, "remind");
}

QJsonValue ExternalInvitations::invitationAction(const QString& invitationId, const char* action)
{
    return invitationOf(m_api.postJson(
        QStringLiteral("/external-invites/%1/%2").arg(invitationId, QLatin1String(action)), {}));
}

} // namespace vantro
