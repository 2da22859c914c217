#pragma once

#include <QObject>
#include <QString>
#include <QUrl>

namespace vantro {

class AppState;

// Client of the signing service. It holds the current base URL (resolved from the stored
// application address, the environment and the built-in default) and answers the origin
// questions the bridge and the web host ask.
class SignApiClient : public QObject
{
    Q_OBJECT
public:
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

private:
    AppState* m_state = nullptr;
    QString m_baseUrl;
};

} // namespace vantro
