#pragma once

#include <QHostAddress>
#include <QHttpServer>
#include <QHttpServerResponse>

namespace vantro::dev {

// The local stand-in of the signing service. It serves the demo web application under
// "/sign/app/" and the REST endpoints under "/sign/api/v1"; unknown API paths get a 404 in the
// service's error shape.
class DevService
{
public:
    DevService();
    // Returns the bound port, or 0 when listening failed.
    quint16 listen(const QHostAddress& address, quint16 port);

private:
    void addRoutes();
    void addApiRoutes();
    QHttpServerResponse upload(const QHttpServerRequest& request);

    QHttpServer m_server;
    int m_uploads = 0;
    int m_heartbeats = 0;
};

} // namespace vantro::dev
