#include "DevService.h"

#include "app/FileHash.h"
#include "Multipart.h"

#include <QFile>
#include <QJsonObject>
#include <QTextStream>

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

void note(const QString& line)
{
    QTextStream(stderr) << "vantro-dev-service: " << line << "\n";
}

} // namespace

DevService::DevService()
{
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
                   [this](const QHttpServerRequest&) {
                       note(QStringLiteral("heartbeat %1").arg(++m_heartbeats));
                       return QHttpServerResponse(QJsonObject{{"ok", true}});
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
    const int n = ++m_uploads;
    const FormPart* title = partNamed(parts, "title");
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

void DevService::addRoutes()
{
    // Every page of the web application is the same single-page demo.
    const auto app = [] {
        return QHttpServerResponse("text/html; charset=utf-8",
                                   resource(QStringLiteral(":/dev-service/www/index.html")));
    };
    m_server.route(QStringLiteral("/sign/app/"), app);
    m_server.route(QStringLiteral("/sign/app/<arg>"), [app](const QUrl&) { return app(); });
    m_server.route(QStringLiteral("/"), [] {
        QHttpServerResponse response(QHttpServerResponse::StatusCode::Found);
        response.setHeader("Location", "/sign/app/documents/");
        return response;
    });
}

} // namespace vantro::dev
