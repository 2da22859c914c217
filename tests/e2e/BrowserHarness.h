#pragma once

// Shared by the browser tests and the bridge benchmark: loopback page servers, a driver that runs
// and awaits page script, and the real window with a recording desktop shell.

#include "bridge/DesktopShell.h"
#include "support/ServiceStandIn.h"
#include "ui/SignAppWindow.h"
#include "ui/WebHost.h"

#include <QEventLoop>
#include <QHttpServer>
#include <QJsonArray>
#include <QJsonObject>

#include <functional>
#include <memory>

namespace vantro::testing {

inline constexpr quint16 kDevPort = 8000; // the local development origin the window trusts
inline constexpr int kLoadTimeoutMs = 30000;
inline constexpr int kScriptTimeoutMs = 15000;

// Runs `loop` until it is quit (true) or the time is up.
bool runUntil(QEventLoop& loop, int timeoutMs = kScriptTimeoutMs);

// Serves, on every path, a page keeping window messages in __events and channel messages in
// __answers, and records the page paths asked for (not the icon). The service's REST paths
// ("/sign/api/...") and downloads (".../download/") go to the stand-in `api`.
struct PageServer
{
    bool start(quint16 port = 0); // 0: a system-chosen port
    void stop() { server.reset(); }
    void setCrossOriginIsolated(bool on) { isolated = on; } // for a fine performance.now()
    QString origin() const { return QStringLiteral("http://127.0.0.1:%1").arg(port); }

    std::unique_ptr<QHttpServer> server;
    quint16 port = 0;
    bool isolated = false;
    QStringList requestedPaths;
    ServiceStandIn api;
};

// Runs script in a page's main world, waiting with an event loop.
struct PageDriver
{
    QVariant eval(const QString& script, int timeoutMs = kScriptTimeoutMs); // invalid on timeout
    QJsonValue json(const QString& expression); // a synchronous value, through JSON
    // Awaits a promise or value: {"ok": true, "value"} or {"ok": false, "message", "code"}.
    QJsonObject await(const QString& expression, int timeoutMs = kScriptTimeoutMs);
    bool load(const QUrl& url);
    bool waitForLoad(int timeoutMs = kLoadTimeoutMs);
    bool settle(); // everything queued to the page so far (answers, events) was dispatched
    // The desktop events the page received, optionally only those whose type starts with
    // `typePrefix`.
    QJsonArray desktopEvents(const QString& typePrefix = {})
    {
        return json(QStringLiteral("__events.filter(function (e) { return e &&"
                                   " e.vantroSignDesktopEvent && e.type.indexOf('%1') === 0; })")
                        .arg(typePrefix))
            .toArray();
    }
    QJsonArray answers() { return json("__answers").toArray(); }
    QUrl url() const { return page->url(); }

    QWebEnginePage* page = nullptr;
    int sequence = 0;
};

// Records the addresses the desktop is asked to open; `onPickFiles` answers the file picker.
struct RecordingShell : DesktopShell
{
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

// The real, shown main window (hidden pages are throttled) against a server on the development
// origin; `foreign` plays another origin.
class AppWindow
{
public:
    ~AppWindow() { close(); }
    bool open();  // starts the servers and the window, waits for the window's first page
    void close(); // deletes the window while the application object still exists
    bool reset(); // the window's own rules, a fresh shell record, an application page
    SignAppWindow* window() const { return m_window.get(); }
    WebHost* host() const { return m_window->webHost(); }
    PageDriver& page() { return m_page; }
    PageServer& server() { return m_server; }
    QUrl appUrl() const { return QUrl(m_server.origin() + "/sign/app/"); }

    PageServer foreign;
    RecordingShell shell;

private:
    PageServer m_server;
    PageDriver m_page;
    std::unique_ptr<SignAppWindow> m_window;
    WebHost::TrustRule m_trust;
    WebHost::MessageHandler m_handler;
};

} // namespace vantro::testing
