#pragma once

#include <QHostAddress>
#include <QHttpServer>

namespace vantro::dev {

// The local stand-in of the signing service. It serves the demo web application under
// "/sign/app/"; the REST endpoints grow with the features that use them.
class DevService
{
public:
    DevService();
    // Returns the bound port, or 0 when listening failed.
    quint16 listen(const QHostAddress& address, quint16 port);

private:
    void addRoutes();

    QHttpServer m_server;
};

} // namespace vantro::dev
