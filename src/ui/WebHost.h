#pragma once

#include "bridge/BridgeChannel.h"
#include "ui/StatusPage.h"

#include <QStringList>
#include <QUrl>
#include <QWebEnginePage>
#include <QWebEngineView>

#include <functional>

class QMimeData;
class QWebChannel;
class QWebEngineLoadingInfo;
class QWebEngineNewWindowRequest;
class QWebEngineProfile;

namespace vantro {

class HostPage;
class WebMessagePort;

// The embedded browser: a persistent profile, the chrome.webview shim and page API scripts,
// the web-message plumbing, the navigation allow-list, local status pages and file drops.
class WebHost : public QWebEngineView, public BridgeWebView
{
    Q_OBJECT
public:
    using MessageHandler = std::function<void(const QString& json, const QUrl& source)>;
    using TrustRule = std::function<bool(const QUrl& url)>;

    // `storageDir` holds the profile's storage and cache; empty keeps everything in memory.
    explicit WebHost(const QString& storageDir, QWidget* parent = nullptr);
    ~WebHost() override;

    // Which main-frame addresses may load inside; everything else is refused.
    void setTrustRule(TrustRule rule) { m_trust = std::move(rule); }
    TrustRule trustRule() const { return m_trust; }
    // Receives each page message with the page address read when it arrives.
    void setMessageHandler(MessageHandler handler) { m_handler = std::move(handler); }
    MessageHandler messageHandler() const { return m_handler; }
    // Adds the shim and, when this build carries it, the page API for `appOrigin`.
    void installPageScripts(const QString& appOrigin);

    void openApp(const QUrl& url);
    // Reloads the current application page, or goes back to the start page from a status page.
    void reloadApp();
    void showStatus(StatusKind kind, const QString& detail = {});
    void setDarkTheme(bool dark);

    QUrl appUrl() const { return m_appUrl; }
    bool isShowingStatus() const { return m_showingStatus; }
    QWebEngineProfile* profile() const { return m_profile; }

    // Local files carried by a drag, or empty when the drag holds anything else.
    static QStringList localFiles(const QMimeData* mime);

    void postWebMessageAsJson(const QByteArray& json) override;
    void executeScript(const QString& script) override;

    bool acceptNavigation(const QUrl& url, QWebEnginePage::NavigationType type, bool mainFrame);

Q_SIGNALS:
    // An address the window must not show; it belongs in the system browser.
    void externalUrlRequested(const QUrl& url);
    void fileDragActiveChanged(bool active);
    void filesDropped(const QStringList& paths);
    void statusShown(vantro::StatusKind kind);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void onLoadingChanged(const QWebEngineLoadingInfo& info);
    void onRenderProcessTerminated(QWebEnginePage::RenderProcessTerminationStatus status,
                                   int exitCode);
    void onNewWindowRequested(QWebEngineNewWindowRequest& request);
    bool handleDragEvent(QEvent* event);
    void setFileDragActive(bool active);
    bool isTrusted(const QUrl& url) const { return m_trust && m_trust(url); }

    QWebEngineProfile* m_profile = nullptr;
    HostPage* m_page = nullptr;
    QWebChannel* m_channel = nullptr;
    WebMessagePort* m_port = nullptr;
    TrustRule m_trust;
    MessageHandler m_handler;
    QUrl m_appUrl;
    bool m_dark = false;
    bool m_showingStatus = false;
    bool m_internalLoadPending = false;
    bool m_fileDragActive = false;
};

} // namespace vantro
