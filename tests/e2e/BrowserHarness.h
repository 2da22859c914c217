#pragma once

// Shared pieces of the browser tests and the bridge benchmark: a loopback page server, a driver
// that runs and awaits script in a page, and a desktop shell that records instead of opening.

#include "bridge/DesktopShell.h"

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <QVariant>

#include <functional>
#include <memory>

class QHttpServer;
class QWebEnginePage;

namespace vantro {
class SignAppWindow;
}

namespace vantro::testing {

// The fixed local development origin the window trusts when local bases are allowed.
inline constexpr quint16 kDevPort = 8000;
inline constexpr int kLoadTimeoutMs = 30000;
inline constexpr int kScriptTimeoutMs = 15000;

// Answers every path with one small page that records what it receives: window messages in
// window.__events, chrome.webview messages in window.__answers. Requests are counted by path.
class PageServer
{
public:
    PageServer();
    ~PageServer();

    // Port 0 lets the system choose. False when the port cannot be bound.
    bool start(quint16 port = 0);
    // Pages come with the headers that make them cross-origin isolated, which gives their
    // performance.now() a fine resolution (for timing measurements).
    void setCrossOriginIsolated(bool isolated) { m_isolated = isolated; }
    void stop();
    quint16 port() const { return m_port; }
    QString origin() const;
    QUrl url(const QString& path) const;
    const QStringList& requestedPaths() const { return m_paths; }

private:
    std::unique_ptr<QHttpServer> m_server;
    quint16 m_port = 0;
    QStringList m_paths;
    bool m_isolated = false;
};

// Runs script in a page's main world and waits for it with an event loop (never polling).
class PageDriver
{
public:
    explicit PageDriver(QWebEnginePage* page)
        : m_page(page)
    {
    }

    // The value of a synchronous expression; invalid on timeout.
    QVariant eval(const QString& script, int timeoutMs = kScriptTimeoutMs);
    // Awaits a promise (or plain value): {"ok": true, "value": ...} or
    // {"ok": false, "message": ..., "code": ...}; empty object on timeout.
    QJsonObject await(const QString& expression, int timeoutMs = kScriptTimeoutMs);
    // Loads `url` in the page and waits for the load to end; true when it succeeded.
    bool load(const QUrl& url, int timeoutMs = kLoadTimeoutMs);
    // Waits for the next load of the page to end; true when it succeeded.
    bool waitForLoad(int timeoutMs = kLoadTimeoutMs);
    // Makes sure everything queued to the page so far (answers, events) was dispatched.
    bool settle();
    // window.__events (page messages) and window.__answers (web-message channel), as JSON.
    QList<QJsonObject> events();
    QList<QJsonObject> answers();
    QUrl url() const;

private:
    QList<QJsonObject> objectList(const QString& expression);

    QWebEnginePage* m_page;
    int m_sequence = 0;
};

// Stands in for the desktop: records the addresses it is asked to open and answers the file
// picker through a test-supplied function.
class RecordingShell : public DesktopShell
{
public:
    QString pickFolder(const QString& title, const QString& startDir) override;
    QStringList pickFiles(const QString& title, const QString& startDir,
                          const QString& filter) override;
    bool openUrl(const QUrl& url) override;

    std::function<QStringList()> onPickFiles;
    std::function<void(const QUrl&)> onOpenUrl;
    QList<QUrl> openedUrls;
    int pickFilesCalls = 0;
};

// The real main window against a page server on the local development origin, shown (hidden
// pages are throttled) and with a recording shell in place of the desktop.
class AppWindow
{
public:
    AppWindow();
    ~AppWindow();

    // Starts the server and the window and waits for the first application page.
    bool open();
    // Deletes the window (and so its pages) while the application object still exists.
    void close();

    SignAppWindow* window() const { return m_window.get(); }
    PageDriver& page() { return *m_driver; }
    PageServer& server() { return m_server; }
    RecordingShell& shell() { return m_shell; }
    QUrl appUrl(const QString& path = QStringLiteral("/sign/app/")) const;
    // Loads an application page and waits for it.
    bool loadApp(const QString& path = QStringLiteral("/sign/app/"));

    // Lets the window show any address, for pages that must run where the window never goes.
    void allowAnyPage();
    // Puts back the window's own navigation rule and message handler.
    void restoreWindowRules();

private:
    PageServer m_server;
    RecordingShell m_shell;
    std::unique_ptr<SignAppWindow> m_window;
    std::unique_ptr<PageDriver> m_driver;
    std::function<bool(const QUrl&)> m_trust;
    std::function<void(const QString&, const QUrl&)> m_handler;
};

} // namespace vantro::testing
