#include "DevService.h"

#include "app/FileHash.h"
#include "CardSignature.h"
#include "Multipart.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTextStream>
#include <QUrl>
#include <QUuid>

namespace vantro::dev {

namespace {

QByteArray resource(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QHttpServerResponse apiError(QHttpServerResponse::StatusCode status, const QString& code,
                             const QString& message)
{
    return QHttpServerResponse(
        QJsonObject{{"ok", false}, {"error", QJsonObject{{"code", code}, {"message", message}}}},
        status);
}

const FormPart* partNamed(const QList<FormPart>& parts, const char* name)
{
    for (const FormPart& part : parts)
        if (part.name == name)
            return &part;
    return nullptr;
}

// "doc-N" -> N, or 0.
int documentNumber(const QString& id)
{
    return id.startsWith(QLatin1String("doc-")) ? id.mid(4).toInt() : 0;
}

QHttpServerResponse unauthorized(const QString& message)
{
    return apiError(QHttpServerResponse::StatusCode::Unauthorized,
                    QStringLiteral("DEVICE_NOT_AUTHENTICATED"), message);
}

// Made before the database inside it is opened.
QString madePath(const QString& dir)
{
    QDir().mkpath(dir);
    return dir;
}

void note(const QString& line)
{
    QTextStream(stderr) << "vantro-dev-service: " << line << "\n";
}

} // namespace

DevService::DevService(const QString& dataDir)
    : m_sessionToken(QUuid::createUuid().toString(QUuid::Id128).toLatin1())
    , m_dataDir(madePath(dataDir))
    , m_store(QDir(dataDir).filePath(QStringLiteral("service.db")))
    , m_signer(dataDir)
{
    QString error;
    m_signerReady = m_signer.ensureKey(&error) && QDir().mkpath(dataDir + "/files");
    if (!m_signerReady)
        note(QStringLiteral("demo signer unavailable: %1").arg(error));
    addApiRoutes();
    addRoutes();
}

quint16 DevService::listen(const QHostAddress& address, quint16 port)
{
    return m_server.listen(address, port);
}

void DevService::addApiRoutes()
{
    using Method = QHttpServerRequest::Method;
    m_server.route(QStringLiteral("/sign/api/v1/documents/uploads"), Method::Post,
                   [this](const QHttpServerRequest& request) { return upload(request); });
    m_server.route(QStringLiteral("/sign/api/v1/heartbeat"), Method::Post,
                   [this](const QHttpServerRequest& request) { return heartbeat(request); });
    m_server.route(QStringLiteral("/sign/api/v1/devices/activate"), Method::Post,
                   [this](const QHttpServerRequest& request) { return activate(request); });
    m_server.route(QStringLiteral("/sign/api/v1/documents/<arg>/sign"), Method::Post,
                   [this](const QString& document, const QHttpServerRequest& request) {
                       return signDocument(document, request);
                   });
    m_server.route(QStringLiteral("/sign/api/v1/documents/<arg>/card-signing"), Method::Post,
                   [this](const QString& document, const QHttpServerRequest& request) {
                       return startCardSigning(document, request);
                   });
    m_server.route(QStringLiteral("/sign/api/v1/documents/<arg>/card-signing/finish"), Method::Post,
                   [this](const QString& document, const QHttpServerRequest& request) {
                       return finishCardSigning(document, request);
                   });
    addInvitationRoutes();
    m_server.route(QStringLiteral("/sign/api/v1/delivery/ack"), Method::Post,
                   [this](const QHttpServerRequest& request) { return acknowledge(request); });
    m_server.route(
        QStringLiteral("/sign/app/documents/<arg>/versions/<arg>/download/"), Method::Get,
        [this](const QString& document, const QString& version, const QHttpServerRequest& request) {
            return download(document, version, request);
        });
    m_server.route(
        QStringLiteral("/sign/api/<arg>"), [](const QUrl&, const QHttpServerRequest& request) {
            return apiError(QHttpServerResponse::StatusCode::NotFound, QStringLiteral("NOT_FOUND"),
                            QStringLiteral("No such endpoint: ") + request.url().path());
        });
}

// Checks the digest against the bytes received, as the service does, and names the new document
// and version.
QHttpServerResponse DevService::upload(const QHttpServerRequest& request)
{
    const QList<FormPart> parts = parseFormData(request.value("Content-Type"), request.body());
    const FormPart* file = partNamed(parts, "file");
    const FormPart* sha256 = partNamed(parts, "sha256");
    if (!file || !sha256)
        return apiError(QHttpServerResponse::StatusCode::BadRequest,
                        QStringLiteral("UPLOAD_FORM_INCOMPLETE"),
                        QStringLiteral("The file and sha256 parts are required."));
    if (sha256Hex(file->body) != QString::fromUtf8(sha256->body))
        return apiError(QHttpServerResponse::StatusCode::UnprocessableEntity,
                        QStringLiteral("UPLOAD_SHA256_MISMATCH"),
                        QStringLiteral("The sha256 part does not match the file."));
    const FormPart* title = partNamed(parts, "title");
    const int n = m_store.recordUpload(title ? QString::fromUtf8(title->body) : QString(),
                                       QString::fromUtf8(sha256->body), file->body.size());
    QFile stored(filePath(n, false));
    if (!stored.open(QIODevice::WriteOnly) || stored.write(file->body) != file->body.size())
        return apiError(QHttpServerResponse::StatusCode::InternalServerError,
                        QStringLiteral("UPLOAD_NOT_STORED"), stored.errorString());
    note(QStringLiteral("upload %1: %2 bytes").arg(n).arg(file->body.size()));
    const QJsonObject version{{"id", QStringLiteral("ver-%1").arg(n)},
                              {"sha256", QString::fromUtf8(sha256->body)},
                              {"size", file->body.size()}};
    const QJsonObject document{{"id", QStringLiteral("doc-%1").arg(n)},
                               {"title", title ? QString::fromUtf8(title->body) : QString()},
                               {"latest_version", version}};
    return QHttpServerResponse(QJsonObject{{"ok", true}, {"document", document}},
                               QHttpServerResponse::StatusCode::Created);
}

// Trades an activation code for a device identity; a code works once and for 30 days.
QHttpServerResponse DevService::activate(const QHttpServerRequest& request)
{
    using Status = QHttpServerResponse::StatusCode;
    const QJsonObject body = QJsonDocument::fromJson(request.body()).object();
    const QString code = body.value("activation_code").toString().trimmed().toUpper();
    switch (m_store.codeState(code)) {
    case DevStore::CodeState::Unknown:
        return apiError(Status::NotFound, QStringLiteral("ACTIVATION_CODE_INVALID"),
                        QStringLiteral("Unknown activation code."));
    case DevStore::CodeState::Expired:
        return apiError(Status::Gone, QStringLiteral("ACTIVATION_CODE_EXPIRED"),
                        QStringLiteral("The activation code has expired."));
    case DevStore::CodeState::Used:
        return apiError(Status::Conflict, QStringLiteral("ACTIVATION_CODE_USED"),
                        QStringLiteral("The activation code was used already."));
    case DevStore::CodeState::Valid:
        break;
    }
    const QJsonObject device = m_store.registerDevice(code, body.value("device_name").toString());
    if (device.isEmpty())
        return apiError(Status::InternalServerError, QStringLiteral("ACTIVATION_FAILED"),
                        QStringLiteral("The device could not be recorded."));
    note(QStringLiteral("device activated: %1").arg(device.value("device_id").toString()));
    QJsonObject grant = device;
    grant.insert("workspace_id", "ws-demo");
    grant.insert("license", QJsonObject{{"plan", "demo"}, {"seats", 1}});
    grant.insert("signer_profile", QJsonObject{{"display_name", "Demo Signer"}});
    grant.insert("app_url", "/sign/app/documents/");
    grant.insert("api_base", "/sign/api/v1/");
    return QHttpServerResponse(grant);
}

QString DevService::authenticatedDevice(const QHttpServerRequest& request)
{
    const QString deviceId = QString::fromUtf8(request.value("X-Vantro-Sign-Device-Id"));
    const QByteArray authorization = request.value("Authorization");
    const QString secret =
        authorization.startsWith("Bearer ") ? QString::fromUtf8(authorization.mid(7)) : QString();
    return m_store.isDevice(deviceId, secret) ? deviceId : QString();
}

// Recorded only for a device the service knows.
QHttpServerResponse DevService::heartbeat(const QHttpServerRequest& request)
{
    return forDevice(request, [&](const QString& device) {
        m_store.recordHeartbeat(device, request.body());
        note(QStringLiteral("heartbeat %1 from %2").arg(m_store.heartbeatCount()).arg(device));
        return QHttpServerResponse(QJsonObject{{"ok", true}});
    });
}

QString DevService::filePath(int document, bool signedCopy) const
{
    return QDir(m_dataDir).filePath(
        QStringLiteral("files/doc-%1%2").arg(document).arg(signedCopy ? "-signed.p7m" : ".bin"));
}

QHttpServerResponse DevService::forOriginal(const QString& documentId,
                                            const QHttpServerRequest& request,
                                            const OriginalAnswer& answer)
{
    if (authenticatedDevice(request).isEmpty() && !isPageSession(request))
        return unauthorized(QStringLiteral("Neither a known device nor the page's session."));
    const int n = documentNumber(documentId);
    QFile original(filePath(n, false));
    if (m_store.document(n).isEmpty() || !original.open(QIODevice::ReadOnly))
        return apiError(QHttpServerResponse::StatusCode::NotFound,
                        QStringLiteral("DOCUMENT_NOT_FOUND"), documentId);
    return answer(n, original.readAll());
}

// Signs the uploaded document with the demo key and answers where the signed copy lies, in the
// shape the page hands to the desktop's mirror.
QHttpServerResponse DevService::signDocument(const QString& documentId,
                                             const QHttpServerRequest& request)
{
    return forOriginal(documentId, request, [this](int n, const QByteArray& bytes) {
        QString error;
        const QByteArray package = m_signer.sign(bytes, &error);
        if (package.isEmpty())
            return apiError(QHttpServerResponse::StatusCode::InternalServerError,
                            QStringLiteral("SIGNING_FAILED"), error);
        return storeSigned(n, package);
    });
}

// A card signs the document's SHA-256: the page gets the hash to sign for the certificate it
// names, and hands the card's signature back to finish.
QHttpServerResponse DevService::startCardSigning(const QString& documentId,
                                                 const QHttpServerRequest& request)
{
    return forOriginal(documentId, request, [&](int n, const QByteArray& bytes) {
        const QByteArray certificate = QByteArray::fromBase64(
            QJsonDocument::fromJson(request.body())["certificate"].toString().toLatin1());
        if (certificate.isEmpty())
            return apiError(QHttpServerResponse::StatusCode::BadRequest,
                            QStringLiteral("CERTIFICATE_REQUIRED"),
                            QStringLiteral("The signing certificate is required."));
        m_cardCertificates.insert(n, certificate);
        const QByteArray hash = QByteArray::fromHex(sha256Hex(bytes).toLatin1());
        return QHttpServerResponse(QJsonObject{{"ok", true},
                                               {"hash", QString::fromLatin1(hash.toBase64())},
                                               {"hashFunction", "SHA-256"}});
    });
}

QHttpServerResponse DevService::finishCardSigning(const QString& documentId,
                                                  const QHttpServerRequest& request)
{
    return forOriginal(documentId, request, [&](int n, const QByteArray& bytes) {
        if (!m_cardCertificates.contains(n))
            return apiError(QHttpServerResponse::StatusCode::Conflict,
                            QStringLiteral("CARD_SIGNING_NOT_STARTED"), documentId);
        const QByteArray signature = QByteArray::fromBase64(
            QJsonDocument::fromJson(request.body())["signature"].toString().toLatin1());
        QString error;
        const QByteArray package =
            packCardSignature(bytes, m_cardCertificates.value(n), signature, &error);
        if (package.isEmpty())
            return apiError(QHttpServerResponse::StatusCode::UnprocessableEntity,
                            QStringLiteral("CARD_SIGNATURE_INVALID"), error);
        m_cardCertificates.remove(n);
        return storeSigned(n, package);
    });
}

QHttpServerResponse DevService::storeSigned(int n, const QByteArray& package)
{
    QFile signedFile(filePath(n, true));
    if (!signedFile.open(QIODevice::WriteOnly) || signedFile.write(package) != package.size())
        return apiError(QHttpServerResponse::StatusCode::InternalServerError,
                        QStringLiteral("SIGNING_FAILED"), signedFile.errorString());
    const QString sha256 = sha256Hex(package);
    m_store.markSigned(n, sha256);
    const QString documentId = QStringLiteral("doc-%1").arg(n);
    const QString version = QStringLiteral("ver-%1-signed").arg(n);
    note(QStringLiteral("signed %1").arg(documentId));
    const QString title = m_store.document(n).value("title").toString();
    return QHttpServerResponse(QJsonObject{
        {"ok", true},
        {"artifact",
         QJsonObject{{"artifact_id", QStringLiteral("sig-%1").arg(n)},
                     {"document_id", documentId},
                     {"version_id", version},
                     {"download_url", QStringLiteral("/sign/app/documents/%1/versions/%2/download/")
                                          .arg(documentId, version)},
                     {"sha256", sha256},
                     {"file_name", (title.isEmpty() ? documentId : title) + ".p7m"}}}});
}

QHttpServerResponse DevService::download(const QString& documentId, const QString& versionId,
                                         const QHttpServerRequest& request)
{
    return forDevice(request, [&](const QString&) {
        const int n = documentNumber(documentId);
        QFile signedFile(filePath(n, true));
        if (versionId != QStringLiteral("ver-%1-signed").arg(n) ||
            !signedFile.open(QIODevice::ReadOnly))
            return apiError(QHttpServerResponse::StatusCode::NotFound,
                            QStringLiteral("VERSION_NOT_FOUND"), versionId);
        const QString title = m_store.document(n).value("title").toString();
        const QString name = (title.isEmpty() ? documentId : title) + QStringLiteral(".p7m");
        QHttpServerResponse response("application/pkcs7-mime", signedFile.readAll());
        response.setHeader("Content-Disposition",
                           "attachment; filename*=UTF-8''" + QUrl::toPercentEncoding(name));
        return response;
    });
}

QHttpServerResponse DevService::forDevice(const QHttpServerRequest& request,
                                          const DeviceAnswer& answer)
{
    const QString device = authenticatedDevice(request);
    if (device.isEmpty())
        return unauthorized(QStringLiteral("Unknown device or secret."));
    return answer(device);
}

// External invitations, listed, created per document, cancelled and reminded.
void DevService::addInvitationRoutes()
{
    using Method = QHttpServerRequest::Method;
    const auto list = [this](const QString& document) {
        return QHttpServerResponse(
            QJsonObject{{"ok", true}, {"invitations", m_store.invitations(document)}});
    };
    m_server.route(QStringLiteral("/sign/api/v1/external-invites"), Method::Get,
                   [this, list](const QHttpServerRequest& request) {
                       return forDevice(request, [&](const QString&) { return list({}); });
                   });
    m_server.route(QStringLiteral("/sign/api/v1/documents/<arg>/external-invites"), Method::Get,
                   [this, list](const QString& document, const QHttpServerRequest& request) {
                       return forDevice(request, [&](const QString&) { return list(document); });
                   });
    m_server.route(
        QStringLiteral("/sign/api/v1/documents/<arg>/external-invites"), Method::Post,
        [this](const QString& document, const QHttpServerRequest& request) {
            return forDevice(request, [&](const QString&) {
                const QJsonObject fields = QJsonDocument::fromJson(request.body()).object();
                return QHttpServerResponse(
                    QJsonObject{{"ok", true},
                                {"invitation", m_store.createInvitation(document, fields)}},
                    QHttpServerResponse::StatusCode::Created);
            });
        });
    m_server.route(
        QStringLiteral("/sign/api/v1/external-invites/<arg>/<arg>"), Method::Post,
        [this](const QString& id, const QString& action, const QHttpServerRequest& request) {
            return forDevice(request, [&](const QString&) {
                const QJsonObject invitation =
                    (action == QLatin1String("cancel") || action == QLatin1String("remind"))
                        ? m_store.updateInvitation(id.mid(4).toInt(), action)
                        : QJsonObject();
                if (!id.startsWith(QLatin1String("inv-")) || invitation.isEmpty())
                    return apiError(QHttpServerResponse::StatusCode::NotFound,
                                    QStringLiteral("INVITATION_NOT_FOUND"), id);
                return QHttpServerResponse(QJsonObject{{"ok", true}, {"invitation", invitation}});
            });
        });
}

QHttpServerResponse DevService::acknowledge(const QHttpServerRequest& request)
{
    return forDevice(request, [&](const QString& device) {
        m_store.recordAcknowledgement(device, QJsonDocument::fromJson(request.body()).object());
        note(QStringLiteral("delivery acknowledged by %1").arg(device));
        return QHttpServerResponse(QJsonObject{{"ok", true}});
    });
}

bool DevService::isPageSession(const QHttpServerRequest& request) const
{
    const QByteArray wanted = "vantro_demo_session=" + m_sessionToken;
    for (const QByteArray& cookie : request.value("Cookie").split(';')) {
        if (cookie.trimmed() == wanted)
            return true;
    }
    return false;
}

// A page of the web application; it opens the page's session with the service, as a signed-in
// user's browser would have one.
QHttpServerResponse DevService::page(const QString& resourceName) const
{
    QHttpServerResponse response("text/html; charset=utf-8",
                                 resource(QStringLiteral(":/dev-service/www/") + resourceName));
    response.setHeader("Set-Cookie", "vantro_demo_session=" + m_sessionToken +
                                         "; Path=/sign; HttpOnly; SameSite=Strict");
    return response;
}

void DevService::addRoutes()
{
    // The developer console calls every page API function with arguments typed in; every other
    // page of the web application is the same single-page application.
    const QString app = QStringLiteral("index.html");
    m_server.route(QStringLiteral("/sign/app/console/"),
                   [this] { return page(QStringLiteral("console.html")); });
    m_server.route(QStringLiteral("/sign/app/"), [this, app] { return page(app); });
    m_server.route(QStringLiteral("/sign/app/<arg>"),
                   [this, app](const QUrl&) { return page(app); });
    m_server.route(QStringLiteral("/"), [] {
        QHttpServerResponse response(QHttpServerResponse::StatusCode::Found);
        response.setHeader("Location", "/sign/app/documents/");
        return response;
    });
}

} // namespace vantro::dev
