#include "api/Endpoints.h"

#include "app/Errors.h"
#include "vantro_config.h"

namespace vantro::endpoints {

namespace {

const QString kAppPrefixText = QString::fromLatin1(kAppPrefix);

QString fromEnvironment(const char* name)
{
    return qEnvironmentVariable(name).trimmed();
}

// The normalised candidate when its origin may serve as the API base, otherwise "".
QString allowedBase(const QString& candidate)
{
    const QString normalized = normalizeBaseUrl(candidate);
    if (normalized.isEmpty() || !isAllowedBaseOrigin(originOf(QUrl(normalized))))
        return {};
    return normalized;
}

// Same origin as the base; an empty origin (relative or broken URL) never matches.
bool onBaseOrigin(const QString& base, const QUrl& url)
{
    const QString origin = originOf(url);
    return url.isValid() && !origin.isEmpty() && origin == originOf(QUrl(base));
}

QString baseOrProduction(const QString& base)
{
    return base.isEmpty() ? productionOrigin() : base;
}

} // namespace

QString productionOrigin()
{
    return QString::fromLatin1(config::kProductionOrigin);
}

QString portalOrigin()
{
    return QString::fromLatin1(config::kPortalOrigin);
}

QString stagingOrigin()
{
    return QString::fromLatin1(config::kStagingOrigin);
}

bool allowLocalApiBase()
{
    const QString value = fromEnvironment("VANTRO_SIGN_ALLOW_LOCAL_API_BASE").toLower();
    return value == QLatin1String("1") || value == QLatin1String("true") ||
           value == QLatin1String("yes") || value == QLatin1String("on");
}

QString normalizeBaseUrl(const QString& candidate)
{
    const QString trimmed = candidate.trimmed();
    if (trimmed.isEmpty())
        return {};
    QUrl url(trimmed, QUrl::TolerantMode);
    if (!url.isValid() || url.scheme().isEmpty() || url.host(QUrl::FullyDecoded).isEmpty())
        return {};
    const QString scheme = url.scheme().toLower();
    url.setScheme(scheme);
    if ((scheme == QLatin1String("https") && url.port() == 443) ||
        (scheme == QLatin1String("http") && url.port() == 80))
        url.setPort(-1);
    QString path = url.path(QUrl::FullyDecoded);
    const int api = path.indexOf(QLatin1String(kApiPrefix));
    if (api >= 0)
        path.truncate(api);
    while (path.endsWith(QLatin1Char('/')))
        path.chop(1);
    url.setPath(path, QUrl::DecodedMode);
    url.setQuery(QString());
    url.setFragment(QString());
    QString out = url.toString(QUrl::RemoveQuery | QUrl::RemoveFragment);
    while (out.endsWith(QLatin1Char('/')))
        out.chop(1);
    return out;
}

QString originOf(const QUrl& url)
{
    const QString host = url.host(QUrl::FullyDecoded);
    if (!url.isValid() || url.scheme().isEmpty() || host.isEmpty())
        return {};
    QString origin = url.scheme().toLower() + QStringLiteral("://") + host.toLower();
    if (url.port() >= 0)
        origin += QLatin1Char(':') + QString::number(url.port());
    return origin;
}

bool isAllowedBaseOrigin(const QString& origin)
{
    if (origin == productionOrigin() || origin == stagingOrigin())
        return true;
    return allowLocalApiBase() &&
           (origin == QLatin1String(kLocalhostOrigin) || origin == QLatin1String(kLoopbackOrigin));
}

bool isAllowedBaseUrl(const QString& candidate)
{
    return !allowedBase(candidate).isEmpty();
}

QString configuredBaseUrl()
{
    return baseOrProduction(allowedBase(fromEnvironment("VANTRO_SIGN_BASE_URL")));
}

QString resolveBaseUrl(const QString& candidate)
{
    const QString base = allowedBase(candidate);
    return base.isEmpty() ? configuredBaseUrl() : base;
}

bool pathHasPrefix(const QString& path, const QString& prefix)
{
    const QString withSlash =
        prefix.endsWith(QLatin1Char('/')) ? prefix : prefix + QLatin1Char('/');
    return path == withSlash.chopped(1) || path.startsWith(withSlash);
}

bool isAuthAllowedUrl(const QString& base, const QUrl& url)
{
    if (!onBaseOrigin(base, url))
        return false;
    const QString path = url.path(QUrl::FullyDecoded);
    return pathHasPrefix(path, kAppPrefixText) ||
           pathHasPrefix(path, QLatin1String(kApiPrefix) + QLatin1Char('/'));
}

QSet<QString> trustedAppOrigins(const QString& base)
{
    QSet<QString> origins{productionOrigin(), portalOrigin()};
    const QString own = originOf(QUrl(base));
    if (!own.isEmpty())
        origins.insert(own);
    if (allowLocalApiBase()) {
        origins.insert(QLatin1String(kLocalhostOrigin));
        origins.insert(QLatin1String(kLoopbackOrigin));
    }
    return origins;
}

bool isTrustedAppUrl(const QString& base, const QUrl& url)
{
    return url.isValid() && trustedAppOrigins(base).contains(originOf(url)) &&
           pathHasPrefix(url.path(QUrl::FullyDecoded), kAppPrefixText);
}

bool isSameOriginAppUrl(const QString& base, const QUrl& url)
{
    return onBaseOrigin(base, url) && pathHasPrefix(url.path(QUrl::FullyDecoded), kAppPrefixText);
}

QUrl webAppUrl(const QString& base, const QString& target)
{
    const QString trimmed = target.trimmed();
    const QUrl documents = QUrl(base).resolved(QUrl(QString::fromLatin1(kDocumentsPage)));
    if (trimmed.isEmpty())
        return documents;
    const QUrl page = QUrl(base).resolved(QUrl(trimmed));
    return isTrustedAppUrl(base, page) ? page : documents;
}

QUrl apiUrl(const QString& base, const QString& path)
{
    const QString absolute = path.startsWith(QLatin1Char('/')) ? path : QLatin1Char('/') + path;
    return QUrl(baseOrProduction(base)).resolved(QUrl(QLatin1String(kApiPrefix) + absolute));
}

QUrl downloadUrl(const QString& base, const QString& value)
{
    const QUrl resolved = QUrl(baseOrProduction(base)).resolved(QUrl(value));
    if (base.isEmpty() || !isAuthAllowedUrl(base, resolved))
        fail(QStringLiteral("VANTRO_SIGN_DOWNLOAD_ORIGIN_NOT_ALLOWED"), originOf(resolved));
    const QString path = resolved.path(QUrl::FullyDecoded);
    if (!path.startsWith(QLatin1String(kDocumentsPage)) ||
        !path.endsWith(QLatin1String(kDownloadSuffix)))
        fail(QStringLiteral("VANTRO_SIGN_DOWNLOAD_PATH_NOT_ALLOWED"), path);
    return resolved;
}

} // namespace vantro::endpoints
