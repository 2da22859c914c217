#pragma once

#include "app/OrderedJson.h"

#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkRequest>
#include <QObject>
#include <QString>
#include <QUrl>

#include <functional>

class QNetworkReply;

namespace vantro {

class AppState;

// Polled while a call waits; true abandons the call. Must be cheap and thread-safe.
using CancelPredicate = std::function<bool()>;

// Client of the signing service. It holds the current base URL (resolved from the stored
// application address, the environment and the built-in default), answers the origin questions
// the bridge and the web host ask, and makes every REST call. Calls block their caller in a
// nested event loop, so a client is used on the thread that created it. Failures are thrown as
// "CODE" or "CODE: detail".
class SignApiClient : public QObject
{
    Q_OBJECT
public:
    // Timeouts of the calls, in milliseconds.
    static constexpr int kJsonTimeoutMs = 30000;
    static constexpr int kPdfJobTimeoutMs = 180000;
    static constexpr int kTransferTimeoutMs = 120000;

    explicit SignApiClient(AppState* state, QObject* parent = nullptr);

    AppState* state() const { return m_state; }
    QString baseUrl() const { return m_baseUrl; }
    void setBaseUrl(const QString& base) { m_baseUrl = base; }

    // Start page of the embedded browser.
    QUrl webAppUrl() const;
    // Origin of the web application ("" when none), the target of desktop events.
    QString webAppOrigin() const;
    // Whether a bridge message from this frame address may be served.
    bool isAllowedOrigin(const QUrl& source) const;

    // The client's own network access; requests made on it are waited for with sendAndWait.
    QNetworkAccessManager& network() { return m_network; }

    // A request with the client's headers; the device credentials only on the service's own
    // application and API paths (VANTRO_SIGN_AUTH_URL_NOT_ALLOWED otherwise).
    QNetworkRequest buildRequest(const QUrl& url, bool json) const;
    // Waits for `reply` and answers its body; HTTP error statuses are the caller's to judge.
    // Throws VANTRO_SIGN_NETWORK_TIMEOUT, VANTRO_SIGN_NETWORK_CANCELLED or the transport's own
    // error text when there is no HTTP status. The reply is always released.
    QByteArray sendAndWait(QNetworkReply* reply, int timeoutMs, int* status = nullptr,
                           QString* contentType = nullptr, QString* contentDisposition = nullptr,
                           const CancelPredicate& cancel = {});

    // JSON calls under the API prefix. "PATCH" is sent as such; any other verb but "GET" as POST.
    QJsonObject apiCall(const QString& method, const QString& path, const QJsonObject& body,
                        int timeoutMs);
    QJsonObject getJson(const QString& path, int timeoutMs = kJsonTimeoutMs);
    QJsonObject postJson(const QString& path, const QJsonObject& body,
                         int timeoutMs = kJsonTimeoutMs);

    // Multipart upload of a file, streamed from disk; "title" and "category" come from `intent`.
    QJsonObject uploadFile(const QString& path, const QString& fileName, const QString& sha256,
                           const QJsonObject& intent, int timeoutMs = kTransferTimeoutMs);
    // A server file into memory, fenced by the download allow-list.
    QByteArray downloadFile(const QString& value, int timeoutMs, QString* fileName = nullptr,
                            const CancelPredicate& cancel = {});

    // Tells the service which build runs here and how the device is doing; fire and forget.
    // Nothing is sent for a device that is not activated. `status` carries "helperAvailable",
    // "pendingMirrorCount" and "failedMirrorCount".
    void sendHeartbeat(const OrderedObject& status);

private:
    bool hasCredentials() const;

    AppState* m_state = nullptr;
    QString m_baseUrl;
    QNetworkAccessManager m_network;
};

} // namespace vantro
