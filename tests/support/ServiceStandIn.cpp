#include "support/ServiceStandIn.h"

#include <QHttpServerResponse>
#include <QJsonDocument>
#include <QTcpSocket>

#include <algorithm>

namespace vantro::testing {

namespace {

QByteArray methodName(QHttpServerRequest::Method method)
{
    switch (method) {
    case QHttpServerRequest::Method::Get:
        return "GET";
    case QHttpServerRequest::Method::Post:
        return "POST";
    case QHttpServerRequest::Method::Patch:
        return "PATCH";
    case QHttpServerRequest::Method::Put:
        return "PUT";
    case QHttpServerRequest::Method::Delete:
        return "DELETE";
    default:
        return "OTHER";
    }
}

QString key(const QByteArray& method, const QString& path)
{
    return QString::fromLatin1(method) + QLatin1Char(' ') + path;
}

QString loopbackOrigin(quint16 port)
{
    return QStringLiteral("http://127.0.0.1:%1").arg(port);
}

} // namespace

QByteArray RecordedRequest::header(const QByteArray& name) const
{
    for (const auto& [field, value] : headers)
        if (field.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    return {};
}

bool RecordedRequest::hasHeader(const QByteArray& name) const
{
    return std::any_of(headers.cbegin(), headers.cend(), [&](const auto& entry) {
        return entry.first.compare(name, Qt::CaseInsensitive) == 0;
    });
}

QJsonObject RecordedRequest::json() const
{
    return QJsonDocument::fromJson(body).object();
}

QList<FormPart> formParts(const RecordedRequest& request)
{
    return dev::parseFormData(request.header("Content-Type"), request.body);
}

bool ServiceStandIn::listen()
{
    m_server = std::make_unique<QHttpServer>();
    m_server->route(QStringLiteral("/<arg>"),
                    [this](const QUrl&, const QHttpServerRequest& r) { return respond(r); });
    m_port = m_server->listen(QHostAddress::LocalHost, 0);
    return m_port != 0;
}

QString ServiceStandIn::origin() const
{
    return loopbackOrigin(m_port);
}

void ServiceStandIn::script(const QByteArray& method, const QString& path, ScriptedReply reply)
{
    m_replies.insert(key(method, path), std::move(reply));
}

void ServiceStandIn::scriptJson(const QByteArray& method, const QString& path, int status,
                                const QJsonObject& body)
{
    script(method, path, {status, QJsonDocument(body).toJson(QJsonDocument::Compact)});
}

QHttpServerResponse ServiceStandIn::respond(const QHttpServerRequest& request)
{
    const QUrl& url = request.url();
    const QString path = url.path() + (url.hasQuery() ? '?' + url.query() : QString());
    requests << RecordedRequest{methodName(request.method()), path, request.headers(),
                                request.body()};
    const auto found = m_replies.constFind(key(requests.last().method, path));
    const ScriptedReply reply =
        found != m_replies.constEnd()
            ? found.value()
            : ScriptedReply{404,
                            R"({"ok":false,"error":{"code":"NOT_FOUND","message":"no route"}})"};
    QHttpServerResponse response(reply.contentType, reply.body,
                                 static_cast<QHttpServerResponse::StatusCode>(reply.status));
    for (const auto& [name, value] : reply.headers)
        response.addHeader(name, value);
    return response;
}

QStringList ServiceStandIn::paths() const
{
    QStringList out;
    for (const RecordedRequest& request : requests)
        out << key(request.method, request.path);
    return out;
}

bool RawResponder::listen()
{
    QObject::connect(&m_server, &QTcpServer::newConnection, &m_server, [this] {
        QTcpSocket* socket = m_server.nextPendingConnection();
        QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
            const QByteArray seen = socket->peek(socket->bytesAvailable());
            if (!seen.contains("\r\n\r\n") || socket->property("answered").toBool())
                return;
            socket->setProperty("answered", true);
            requestHeads << seen.left(seen.indexOf("\r\n\r\n"));
            if (reply.isEmpty())
                return; // hang
            socket->write(reply);
            socket->disconnectFromHost();
        });
        QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    });
    return m_server.listen(QHostAddress::LocalHost, 0);
}

QString RawResponder::origin() const
{
    return loopbackOrigin(m_server.serverPort());
}

} // namespace vantro::testing
