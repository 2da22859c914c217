#include "api/SignApiClient.h"

#include "api/Endpoints.h"
#include "api/Logging.h"
#include "app/AppState.h"

namespace vantro {

namespace {

// The service base in front of a stored web application address: an absolute
// "https://host/prefix/sign/app/documents/" gives "https://host/prefix". A bare path such as
// "/sign/app/documents/" has no base and yields a string that normalises to "".
QString baseOfAppUrl(const QString& appUrl)
{
    QUrl url(appUrl.trimmed(), QUrl::TolerantMode);
    const QString path = url.path(QUrl::FullyDecoded);
    const int app = (path + QLatin1Char('/')).indexOf(QLatin1String(endpoints::kAppPrefix));
    if (app >= 0)
        url.setPath(path.left(app), QUrl::DecodedMode);
    return url.toString(QUrl::RemoveQuery | QUrl::RemoveFragment);
}

QString storedAppUrl(const AppState* state)
{
    return state ? state->appUrl() : QString();
}

} // namespace

SignApiClient::SignApiClient(AppState* state, QObject* parent)
    : QObject(parent)
    , m_state(state)
    , m_baseUrl(endpoints::resolveBaseUrl(baseOfAppUrl(storedAppUrl(state))))
{
    qCDebug(lcApi) << "service base" << m_baseUrl;
}

QUrl SignApiClient::webAppUrl() const
{
    return endpoints::webAppUrl(m_baseUrl, storedAppUrl(m_state));
}

QString SignApiClient::webAppOrigin() const
{
    return endpoints::originOf(webAppUrl());
}

bool SignApiClient::isAllowedOrigin(const QUrl& source) const
{
    return endpoints::isSameOriginAppUrl(m_baseUrl, source);
}

} // namespace vantro
