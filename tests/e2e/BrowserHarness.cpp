#include "e2e/BrowserHarness.h"

#include "ui/SignAppWindow.h"
#include "ui/WebHost.h"

#include <QEventLoop>
#include <QHttpServer>
#include <QHttpServerRequest>
#include <QHttpServerResponse>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTimer>
#include <QWebEnginePage>

namespace vantro::testing {

namespace {

const char* const kPage = R"(<!DOCTYPE html>
<html><head><meta charset="utf-8"><title>page</title>
<script>
window.__events = [];
window.addEventListener('message', function (event) { window.__events.push(event.data); });
window.__answers = [];
if (window.chrome && window.chrome.webview)
    window.chrome.webview.addEventListener('message', function (event) {
        window.__answers.push(event.data);
    });
</script></head>
<body><p>test page</p></body></html>
)";

// Runs `loop` until `done` is called or the time is up; true when done came first.
bool runUntil(QEventLoop& loop, int timeoutMs)
{
    QTimer timer;
    timer.setSingleShot(true);
    QObject::connect(&timer, &QTimer::timeout, &loop, [&loop] { loop.exit(1); });
    timer.start(timeoutMs);
    return loop.exec() == 0;
}

} // namespace

PageServer::PageServer() = default;
PageServer::~PageServer() = default;

bool PageServer::start(quint16 port)
{
    m_server = std::make_unique<QHttpServer>();
    const auto page = [this](const QHttpServerRequest& request) {
        m_paths << request.url().path();
        QHttpServerResponse response("text/html; charset=utf-8", QByteArray(kPage));
        if (m_isolated) {
            response.setHeader("Cross-Origin-Opener-Policy", "same-origin");
            response.setHeader("Cross-Origin-Embedder-Policy", "require-corp");
        }
        return response;
    };
    m_server->route(QStringLiteral("/"), page);
    m_server->route(
        QStringLiteral("/<arg>"),
        [page](const QUrl&, const QHttpServerRequest& request) { return page(request); });
    m_port = m_server->listen(QHostAddress::LocalHost, port);
    if (m_port == 0)
        m_server.reset();
    return m_port != 0;
}

void PageServer::stop()
{
    m_server.reset();
}

QString PageServer::origin() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(m_port);
}

QUrl PageServer::url(const QString& path) const
{
    return QUrl(origin() + path);
}

QVariant PageDriver::eval(const QString& script, int timeoutMs)
{
    // The callback may come after a timeout, when this frame is gone: it only sees `state`.
    struct State
    {
        QVariant value;
        QEventLoop* loop = nullptr;
    };
    QEventLoop loop;
    auto state = std::make_shared<State>();
    state->loop = &loop;
    m_page->runJavaScript(script, [state](const QVariant& value) {
        state->value = value;
        if (state->loop)
            state->loop->quit();
    });
    const bool done = runUntil(loop, timeoutMs);
    state->loop = nullptr;
    return done ? state->value : QVariant();
}

QJsonObject PageDriver::await(const QString& expression, int timeoutMs)
{
    // The page announces completion through its title: a signal, so nothing polls.
    const QString token = QStringLiteral("vantro-test-%1").arg(++m_sequence);
    const QString script = QStringLiteral(R"((function () {
    var token = '%1';
    function done(outcome) {
        (window.__testResults = window.__testResults || {})[token] = outcome;
        document.title = token;
    }
    Promise.resolve().then(function () { return (%2); }).then(function (value) {
        done({ ok: true, value: value === undefined ? null : value });
    }, function (error) {
        done({ ok: false,
               message: String(error && error.message !== undefined ? error.message : error),
               code: (error && error.code) || null });
    });
})();)")
                               .arg(token, expression);
    QEventLoop loop;
    const auto connection = QObject::connect(m_page, &QWebEnginePage::titleChanged, &loop,
                                             [&loop, token](const QString& title) {
                                                 if (title == token)
                                                     loop.quit();
                                             });
    m_page->runJavaScript(script);
    const bool done = runUntil(loop, timeoutMs);
    QObject::disconnect(connection);
    if (!done)
        return {};
    const QString json =
        eval(QStringLiteral("JSON.stringify(window.__testResults['%1'])").arg(token)).toString();
    return QJsonDocument::fromJson(json.toUtf8()).object();
}

bool PageDriver::load(const QUrl& url, int timeoutMs)
{
    m_page->load(url);
    return waitForLoad(timeoutMs);
}

bool PageDriver::waitForLoad(int timeoutMs)
{
    QEventLoop loop;
    bool ok = false;
    const auto connection =
        QObject::connect(m_page, &QWebEnginePage::loadFinished, &loop, [&](bool success) {
            ok = success;
            loop.quit();
        });
    const bool finished = runUntil(loop, timeoutMs);
    QObject::disconnect(connection);
    return finished && ok;
}

bool PageDriver::settle()
{
    const QJsonObject outcome = await(QStringLiteral(R"(new Promise(function (resolve) {
        var marker = 'settle-' + Math.random();
        window.addEventListener('message', function listener(event) {
            if (event.data && event.data.__vantroMarker === marker) {
                window.removeEventListener('message', listener);
                resolve(true);
            }
        });
        window.postMessage({ __vantroMarker: marker }, '*');
    }))"));
    return outcome.value(QStringLiteral("ok")).toBool();
}

QList<QJsonObject> PageDriver::objectList(const QString& expression)
{
    const QString json = eval(QStringLiteral("JSON.stringify((%1 || []).filter(function (item) {"
                                             " return !(item && item.__vantroMarker); }))")
                                  .arg(expression))
                             .toString();
    QList<QJsonObject> list;
    for (const QJsonValue& value : QJsonDocument::fromJson(json.toUtf8()).array())
        list << value.toObject();
    return list;
}

QList<QJsonObject> PageDriver::events()
{
    return objectList(QStringLiteral("window.__events"));
}

QList<QJsonObject> PageDriver::answers()
{
    return objectList(QStringLiteral("window.__answers"));
}

QUrl PageDriver::url() const
{
    return m_page->url();
}

QString RecordingShell::pickFolder(const QString&, const QString&)
{
    return {};
}

QStringList RecordingShell::pickFiles(const QString&, const QString&, const QString&)
{
    ++pickFilesCalls;
    return onPickFiles ? onPickFiles() : QStringList();
}

bool RecordingShell::openUrl(const QUrl& url)
{
    openedUrls << url;
    if (onOpenUrl)
        onOpenUrl(url);
    return true;
}

AppWindow::AppWindow() = default;

AppWindow::~AppWindow()
{
    close();
}

bool AppWindow::open()
{
    if (!m_server.start(kDevPort)) {
        qWarning("cannot listen on 127.0.0.1:%d", int(kDevPort));
        return false;
    }
    m_window = std::make_unique<SignAppWindow>();
    m_driver = std::make_unique<PageDriver>(m_window->webHost()->page());
    m_trust = m_window->webHost()->trustRule();
    m_handler = m_window->webHost()->messageHandler();
    m_window->setDesktopShell(&m_shell);
    m_window->show();
    // The window started loading in its constructor; the signal cannot have come yet.
    return m_driver->waitForLoad();
}

void AppWindow::close()
{
    m_driver.reset();
    m_window.reset();
    m_server.stop();
}

QUrl AppWindow::appUrl(const QString& path) const
{
    return m_server.url(path);
}

bool AppWindow::loadApp(const QString& path)
{
    return m_driver->load(appUrl(path));
}

void AppWindow::allowAnyPage()
{
    m_window->webHost()->setTrustRule([](const QUrl&) { return true; });
}

void AppWindow::restoreWindowRules()
{
    m_window->webHost()->setTrustRule(m_trust);
    m_window->webHost()->setMessageHandler(m_handler);
}

} // namespace vantro::testing
