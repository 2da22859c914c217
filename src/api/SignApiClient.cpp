#include "api/SignApiClient.h"

#include "api/Endpoints.h"
#include "api/Logging.h"
#include "api/ReplyText.h"
#include "app/AppState.h"
#include "app/Errors.h"
#include "vantro_config.h"

#include <QEventLoop>
#include <QJsonDocument>
#include <QNetworkProxyFactory>
#include <QNetworkReply>
#include <QTimer>

#include <mutex>

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

// Corporate networks reach the service through the proxy the system names.
void useSystemProxies()
{
    static std::once_flag once;
    std::call_once(once, [] { QNetworkProxyFactory::setUseSystemConfiguration(true); });
}

// Releases a reply however the wait ends; it may still be delivering signals, so not at once.
struct ReplyRelease
{
    QNetworkReply* reply;
    ~ReplyRelease() { reply->deleteLater(); }
};

} // namespace

SignApiClient::SignApiClient(AppState* state, QObject* parent)
    : QObject(parent)
    , m_state(state)
    , m_baseUrl(endpoints::resolveBaseUrl(baseOfAppUrl(storedAppUrl(state))))
{
    useSystemProxies();
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

bool SignApiClient::hasCredentials() const
{
    return m_state && m_state->isActivated();
}

QNetworkRequest SignApiClient::buildRequest(const QUrl& url, bool json) const
{
    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::UserAgentHeader,
                      QByteArray("VantroSignNext/") + config::kApplicationVersion);
    // Qt keeps every header across a redirect, so a request may only be redirected where its
    // credentials could have gone in the first place.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::SameOriginRedirectPolicy);
    if (json)
        request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray("application/json"));
    if (!hasCredentials())
        return request;
    if (m_baseUrl.isEmpty() || !endpoints::isAuthAllowedUrl(m_baseUrl, url)) {
        qCWarning(lcApi) << "credentials refused for" << endpoints::originOf(url);
        fail(QStringLiteral("VANTRO_SIGN_AUTH_URL_NOT_ALLOWED"));
    }
    request.setRawHeader("Authorization", "Bearer " + m_state->deviceSecret().toUtf8());
    request.setRawHeader("X-Vantro-Sign-Device-Id", m_state->deviceId().toUtf8());
    return request;
}

QByteArray SignApiClient::sendAndWait(QNetworkReply* reply, int timeoutMs, int* status,
                                      QString* contentType, QString* contentDisposition,
                                      const CancelPredicate& cancel)
{
    constexpr int kCancelPollMs = 25;
    const ReplyRelease release{reply};
    QEventLoop loop;
    QTimer deadline;
    deadline.setSingleShot(true);
    connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    connect(&deadline, &QTimer::timeout, &loop, &QEventLoop::quit);
    QTimer poll;
    bool cancelled = false;
    if (cancel) {
        connect(&poll, &QTimer::timeout, &loop, [&] {
            if (!cancel())
                return;
            cancelled = true;
            reply->abort();
            loop.quit();
        });
        poll.start(kCancelPollMs);
    }
    deadline.start(timeoutMs);
    if (!reply->isFinished())
        loop.exec();
    poll.stop();

    if (cancelled)
        fail(QStringLiteral("VANTRO_SIGN_NETWORK_CANCELLED"));
    if (!deadline.isActive() && !reply->isFinished()) {
        reply->abort();
        fail(QStringLiteral("VANTRO_SIGN_NETWORK_TIMEOUT"));
    }
    const int httpStatus =
        status ? reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() : 0;
    if (status)
        *status = httpStatus;
    if (contentType)
        *contentType = reply->header(QNetworkRequest::ContentTypeHeader).toString();
    if (contentDisposition)
        *contentDisposition = QString::fromUtf8(reply->rawHeader("Content-Disposition"));
    const QByteArray body = reply->readAll();
    // A success status whose body broke off is a transport failure too: half a file must not
    // pass for the file.
    if (reply->error() != QNetworkReply::NoError &&
        (httpStatus < 1 || replytext::isSuccessStatus(httpStatus))) {
        qCInfo(lcApi) << "transport failure" << reply->url().toDisplayString() << reply->error();
        throw VantroError(reply->errorString());
    }
    return body;
}

QJsonObject SignApiClient::apiCall(const QString& method, const QString& path,
                                   const QJsonObject& body, int timeoutMs)
{
    const bool isGet = method == QLatin1String("GET");
    const QNetworkRequest request = buildRequest(endpoints::apiUrl(m_baseUrl, path), !isGet);
    const QByteArray payload = QJsonDocument(body).toJson(QJsonDocument::Compact);
    QNetworkReply* reply = isGet ? m_network.get(request)
                           : method == QLatin1String("PATCH")
                               ? m_network.sendCustomRequest(request, "PATCH", payload)
                               : m_network.post(request, payload);
    int status = 0;
    const QByteArray raw = sendAndWait(reply, timeoutMs, &status).trimmed();
    const QString failed = QStringLiteral("VANTRO_SIGN_API_FAILED_%1").arg(status);
    if (raw.isEmpty()) {
        if (replytext::isSuccessStatus(status))
            return {};
        fail(failed, QStringLiteral("backend returned an empty response"));
    }
    const QJsonObject answer = replytext::expectObject(raw, failed);
    if (replytext::isSuccessStatus(status) && answer.value(QLatin1String("ok")).toBool(true))
        return answer;
    throw VantroError(replytext::backendErrorMessage(answer, failed));
}

QJsonObject SignApiClient::getJson(const QString& path, int timeoutMs)
{
    return apiCall(QStringLiteral("GET"), path, {}, timeoutMs);
}

QJsonObject SignApiClient::postJson(const QString& path, const QJsonObject& body, int timeoutMs)
{
    return apiCall(QStringLiteral("POST"), path, body, timeoutMs);
}

} // namespace vantro
