#pragma once

// Loopback doubles of the signing service for the client tests: a QHttpServer stand-in that
// records what it receives and answers what a test scripts, and a raw TCP responder for replies
// no well-behaved server sends (hanging, cut short, lying about their length).

#include "Multipart.h"

#include <QByteArray>
#include <QHash>
#include <QHttpServer>
#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QTcpServer>

#include <memory>

namespace vantro::testing {

using HeaderList = QList<QPair<QByteArray, QByteArray>>;

struct RecordedRequest
{
    QByteArray method; // "GET", "POST", "PATCH", ...
    QString path;      // with the query, if any
    HeaderList headers;
    QByteArray body;

    QByteArray header(const QByteArray& name) const; // case-insensitive; "" when absent
    bool hasHeader(const QByteArray& name) const;
    QJsonObject json() const;
};

struct ScriptedReply
{
    ScriptedReply(int status = 200, QByteArray body = {},
                  QByteArray contentType = "application/json", HeaderList headers = {})
        : status(status)
        , body(std::move(body))
        , contentType(std::move(contentType))
        , headers(std::move(headers))
    {
    }
    int status;
    QByteArray body;
    QByteArray contentType;
    HeaderList headers;
};

// The parts of a multipart form request, in the order the server saw them.
using FormPart = dev::FormPart;
QList<FormPart> formParts(const RecordedRequest& request);

class ServiceStandIn
{
public:
    bool listen(); // on a system-chosen loopback port
    QString origin() const;

    // The reply to `method` on `path` (the full path, API prefix included). Paths nobody
    // scripted get a 404 in the service's error shape.
    void script(const QByteArray& method, const QString& path, ScriptedReply reply);
    void scriptJson(const QByteArray& method, const QString& path, int status,
                    const QJsonObject& body);
    // Records the request and answers it; usable from another server's route too.
    QHttpServerResponse respond(const QHttpServerRequest& request);

    QStringList paths() const; // "METHOD path" of every request, in order
    QList<RecordedRequest> requests;

private:
    std::unique_ptr<QHttpServer> m_server;
    quint16 m_port = 0;
    QHash<QString, ScriptedReply> m_replies;
};

// Accepts connections, reads the request head and then sends `reply` verbatim and closes, or
// keeps the connection open without a word when `reply` is empty.
class RawResponder
{
public:
    bool listen();
    QString origin() const;
    QByteArray reply;
    QList<QByteArray> requestHeads;

private:
    QTcpServer m_server;
};

} // namespace vantro::testing
