#pragma once

#include <QSet>
#include <QString>
#include <QUrl>

// Pure URL rules for the signing service: which base the client talks to, where credentials
// may go, which pages count as the hosted web application and what may be downloaded.
// They read the process environment on every call and never touch the network.
namespace vantro::endpoints {

inline constexpr char kApiPrefix[] = "/sign/api/v1";
inline constexpr char kAppPrefix[] = "/sign/app/";
inline constexpr char kDocumentsPage[] = "/sign/app/documents/";
inline constexpr char kDownloadSuffix[] = "/download/";
inline constexpr char kLocalhostOrigin[] = "http://localhost:8000";
inline constexpr char kLoopbackOrigin[] = "http://127.0.0.1:8000";

QString productionOrigin();
QString portalOrigin();
QString stagingOrigin();

bool allowLocalApiBase();
QString normalizeBaseUrl(const QString& candidate);
QString originOf(const QUrl& url);
bool isAllowedBaseOrigin(const QString& origin);
bool isAllowedBaseUrl(const QString& candidate);
QString configuredBaseUrl();
QString resolveBaseUrl(const QString& candidate);
bool pathHasPrefix(const QString& path, const QString& prefix);
bool isAuthAllowedUrl(const QString& base, const QUrl& url);
QSet<QString> trustedAppOrigins(const QString& base);
bool isTrustedAppUrl(const QString& base, const QUrl& url);
bool isSameOriginAppUrl(const QString& base, const QUrl& url);
QUrl webAppUrl(const QString& base, const QString& target);
// An empty base means the client holds none: the production origin is used.
QUrl apiUrl(const QString& base, const QString& path);
// Throws "VANTRO_SIGN_DOWNLOAD_ORIGIN_NOT_ALLOWED" or "VANTRO_SIGN_DOWNLOAD_PATH_NOT_ALLOWED".
QUrl downloadUrl(const QString& base, const QString& value);

} // namespace vantro::endpoints
