#include "DevService.h"

#include <QFile>
#include <QHttpServerResponse>

namespace vantro::dev {

namespace {

QByteArray resource(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

DevService::DevService()
{
    addRoutes();
}

quint16 DevService::listen(const QHostAddress& address, quint16 port)
{
    return m_server.listen(address, port);
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
