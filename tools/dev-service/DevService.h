#pragma once

#include <QHash>
#include <QHostAddress>
#include <QHttpServer>
#include <QHttpServerResponse>

#include <functional>

#include "DemoSigner.h"
#include "DevStore.h"

namespace vantro::dev {

// The local stand-in of the signing service. It serves the web application under "/sign/app/"
// and the REST endpoints under "/sign/api/v1"; unknown API paths get a 404 in the service's
// error shape. The desktop authenticates with its device credentials; the page, like a signed-in
// browser, with the session cookie its pages set.
class DevService
{
public:
    // Keeps its state in "service.db" inside `dataDir`.
    explicit DevService(const QString& dataDir);
    bool isReady() const { return m_store.isOpen() && m_signerReady; }
    QString signerCertificate() const { return m_signer.certificatePath(); }
    DevStore& store() { return m_store; }
    // Returns the bound port, or 0 when listening failed.
    quint16 listen(const QHostAddress& address, quint16 port);

private:
    void addRoutes();
    void addApiRoutes();
    QHttpServerResponse upload(const QHttpServerRequest& request);
    QHttpServerResponse activate(const QHttpServerRequest& request);
    QHttpServerResponse heartbeat(const QHttpServerRequest& request);
    QHttpServerResponse signDocument(const QString& documentId, const QHttpServerRequest& request);
    QHttpServerResponse startCardSigning(const QString& documentId,
                                         const QHttpServerRequest& request);
    QHttpServerResponse finishCardSigning(const QString& documentId,
                                          const QHttpServerRequest& request);
    // Stores a document's signed package and answers the artifact the page mirrors.
    QHttpServerResponse storeSigned(int document, const QByteArray& package);
    // Runs `answer` with an uploaded document's number and bytes, for the page's session or a
    // known device (401 otherwise); 404 for a document the service does not have.
    using OriginalAnswer =
        std::function<QHttpServerResponse(int document, const QByteArray& bytes)>;
    QHttpServerResponse forOriginal(const QString& documentId, const QHttpServerRequest& request,
                                    const OriginalAnswer& answer);
    QHttpServerResponse download(const QString& documentId, const QString& versionId,
                                 const QHttpServerRequest& request);
    QHttpServerResponse acknowledge(const QHttpServerRequest& request);
    void addInvitationRoutes();
    // Runs `answer` with the device a request's credentials name; 401 when they name none.
    using DeviceAnswer = std::function<QHttpServerResponse(const QString& device)>;
    QHttpServerResponse forDevice(const QHttpServerRequest& request, const DeviceAnswer& answer);
    QString filePath(int document, bool signedCopy) const;
    bool isPageSession(const QHttpServerRequest& request) const;
    QHttpServerResponse page(const QString& resourceName) const;
    // The device a request's credentials name, or empty when they name none.
    QString authenticatedDevice(const QHttpServerRequest& request);

    QHash<int, QByteArray> m_cardCertificates; // document -> the card's certificate (DER)
    QByteArray m_sessionToken;                 // the web application's session, new at every start
    QString m_dataDir;
    DevStore m_store;
    DemoSigner m_signer;
    bool m_signerReady = false;
    QHttpServer m_server;
};

} // namespace vantro::dev
