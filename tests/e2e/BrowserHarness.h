#pragma once

// Shared by the browser tests and the bridge benchmark: a loopback page server, a driver that
// runs and awaits script in a page, and the real window with a recording desktop shell.

#include "bridge/DesktopShell.h"
#include "ui/SignAppWindow.h"
#include "ui/WebHost.h"

#include <QEventLoop>
#include <QHttpServer>
#include <QJsonObject>
#include <QVariant>
#include <QWebEnginePage>

#include <functional>
#include <memory>

namespace vantro::testing {

// The fixed local development origin the window trusts when local bases are allowed.
inline constexpr quint16 kDevPort = 8000;
inline constexpr int kLoadTimeoutMs = 30000;
inline constexpr int kScriptTimeoutMs = 15000;

// Runs `loop` until it is quit or the time is up; true when it was quit first.
bool runUntil(QEventLoop& loop, int timeoutMs = kScriptTimeoutMs);

// Serves one small page on every path that records what it receives: window messages in
// window.__events, chrome.webview messages in window.__answers.
class PageServer
{
public:
    // Port 0 lets the system choose. False when the port cannot be bound.
    bool start(quint16 port = 0);
    void stop() { m_server.reset(); }
    // Cross-origin isolated pages get a fine performance.now() (for timing measurements).
    void setCrossOriginIsolated(bool isolated) { m_isolated = isolated; }
    QString origin() const { return QStringLiteral("http://127.0.0.1:%1").arg(m_port); }
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
    // Loads `url`, or waits for the next load; true when it succeeded.
    bool load(const QUrl& url)
    {
        m_page->load(url);
        return waitForLoad();
    }
    bool waitForLoad(int timeoutMs = kLoadTimeoutMs);
    // Makes sure everything queued to the page so far (answers, events) was dispatched.
    bool settle();
    // The desktop events (window messages) and the channel answers the page received.
    QList<QJsonObject> desktopEvents();
    QList<QJsonObject> answers() { return objectList(QStringLiteral("window.__answers")); }
    QUrl url() const { return m_page->url(); }

private:
    QList<QJsonObject> objectList(const QString& expression);

    QWebEnginePage* m_page;
    int m_sequence = 0;
};

// Stands in for the desktop: records the addresses it is asked to open; a test-supplied function
// answers the file picker.
class RecordingShell : public DesktopShell
{
public:
    QString pickFolder(const QString&, const QString&) override { return {}; }
    QStringList pickFiles(const QString&, const QString&, const QString&) override
    {
        ++pickFilesCalls;
        return onPickFiles ? onPickFiles() : QStringList();
    }
    bool openUrl(const QUrl& url) override
    {
        openedUrls << url;
        return true;
    }

    std::function<QStringList()> onPickFiles;
    QList<QUrl> openedUrls;
    int pickFilesCalls = 0;
};

// The real main window against a page server on the local development origin, shown (hidden
// pages are throttled), with a recording shell for the desktop. A second server on a
// system-chosen port plays a foreign origin.
class AppWindow
{
public:
    ~AppWindow() { close(); }

    // Starts the servers and the window and waits for the window's own first page.
    bool open();
    // Deletes the window (and so its pages) while the application object still exists.
    void close();
    // Before each test: the window's own rules, a fresh shell record, an application page.
    bool reset();

    SignAppWindow* window() const { return m_window.get(); }
    WebHost* host() const { return m_window->webHost(); }
    PageDriver& page() { return *m_driver; }
    PageServer& server() { return m_server; }
    PageServer& foreign() { return m_foreign; }
    RecordingShell& shell() { return m_shell; }
    QUrl appUrl(const QString& path = QStringLiteral("/sign/app/")) const
    {
        return QUrl(m_server.origin() + path);
    }
    // `address` with a leading "FOREIGN" standing for the foreign server's origin.
    QUrl resolve(const QString& address) const
    {
        return QUrl(address.startsWith("FOREIGN") ? m_foreign.origin() + address.mid(7) : address);
    }
    bool loadApp(const QString& path = QStringLiteral("/sign/app/"))
    {
        return m_driver->load(appUrl(path));
    }
    // Lets the window show any address, for pages that must run where the window never goes.
    void allowAnyPage()
    {
        host()->setTrustRule([](const QUrl&) { return true; });
    }

private:
    PageServer m_server;
    PageServer m_foreign;
    RecordingShell m_shell;
    std::unique_ptr<SignAppWindow> m_window;
    std::unique_ptr<PageDriver> m_driver;
    std::function<bool(const QUrl&)> m_trust;
    std::function<void(const QString&, const QUrl&)> m_handler;
};

} // namespace vantro::testing
