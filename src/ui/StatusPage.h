#pragma once

#include <QString>
#include <QUrl>

namespace vantro {

// Local pages shown in place of the web application when it cannot be shown.
enum class StatusKind {
    Unreachable,      // no connection, name lookup or timeout
    CertificateError, // the service's certificate was refused
    ServiceError,     // the service answered with a server error
    Crashed,          // the page's render process ended
};

struct StatusPageTexts
{
    QString title;
    QString message;
};

StatusPageTexts statusPageTexts(StatusKind kind);

// A self-contained Lithuanian page with a retry link back to `retryUrl`. `detail` is the
// browser's technical reason, shown small for support.
QString statusPageHtml(StatusKind kind, const QUrl& retryUrl, const QString& detail, bool dark);

} // namespace vantro
