#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QString>

namespace vantro {

class LocalStore;
class SignApiClient;

// Invitations of outside signers, kept by the service alone: a local document is mapped to its
// service document (uploaded first where needed) and the service's answer is handed back.
class ExternalInvitations
{
public:
    ExternalInvitations(LocalStore& store, SignApiClient& api);

    // All of the workspace's invitations for an empty id; otherwise the document's, where an id
    // the store does not know is taken for a service document id.
    QJsonArray list(const QString& documentId);
    QJsonValue create(const QString& documentId, const QJsonObject& input);
    QJsonValue cancel(const QString& invitationId);
    QJsonValue remind(const QString& invitationId);

private:
    QJsonValue invitationAction(const QString& invitationId, const char* action);

    LocalStore& m_store;
    SignApiClient& m_api;
};

} // namespace vantro
