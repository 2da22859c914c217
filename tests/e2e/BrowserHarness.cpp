#include "e2e/BrowserHarness.h"

#include <QHttpServerRequest>
#include <QHttpServerResponse>
#include <QJsonArray>
#include <QJsonDocument>
#include <QPointer>
#include <QTimer>

namespace vantro::testing {

bool runUntil(QEventLoop& loop, int timeoutMs)
{
    QTimer::singleShot(timeoutMs, &loop, [&loop] { loop.exit(1); });
    return loop.exec() == 0;
}

bool PageServer::start(quint16 port)
{
    static const QByteArray page = R"(<!DOCTYPE html>
<html><head><meta charset="utf-8"><title>page</title><script>
window.__events = [];
window.addEventListener('message', function (event) { window.__events.push(event.data); });
window.__answers = [];
if (window.chrome && window.chrome.webview)
    window.chrome.webview.addEventListener('message', function (event) {
        window.__answers.push(event.data);
    });
</script></head><body><p>test page</p></body></html>)";
    m_server = std::make_unique<QHttpServer>();
    const auto respond = [this](const QHttpServerRequest& request) {
        m_paths << request.url().path();
        QHttpServerResponse response("text/html; charset=utf-8", page);
        if (m_isolated) {
            response.setHeader("Cross-Origin-Opener-Policy", "same-origin");
            response.setHeader("Cross-Origin-Embedder-Policy", "require-corp");
        }
        return response;
    };
    m_server->route(QStringLiteral("/"), respond);
    m_server->route(
        QStringLiteral("/<arg>"),
        [respond](const QUrl&, const QHttpServerRequest& request) { return respond(request); });
    m_port = m_server->listen(QHostAddress::LocalHost, port);
    if (m_port == 0)
        m_server.reset();
    return m_port != 0;
}

QVariant PageDriver::eval(const QString& script, int timeoutMs)
{
    // The callback may come after a timeout, when this frame is gone.
    QEventLoop loop;
    auto value = std::make_shared<QVariant>();
    m_page->runJavaScript(script, [value, guard = QPointer<QEventLoop>(&loop)](const QVariant& v) {
        *value = v;
        if (guard)
            guard->quit();
    });
    return runUntil(loop, timeoutMs) ? *value : QVariant();
}

QJsonObject PageDriver::await(const QString& expression, int timeoutMs)
{
    // The page announces completion through its title: a signal, so nothing polls.
    const QString token = QStringLiteral("vantro-test-%1").arg(++m_sequence);
    const QString script = QStringLiteral(R"((function () {
    function done(outcome) {
        (window.__testResults = window.__testResults || {})['%1'] = outcome;
        document.title = '%1';
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
    QObject::connect(m_page, &QWebEnginePage::titleChanged, &loop, [&loop, token](auto& title) {
        if (title == token)
            loop.quit();
    });
    m_page->runJavaScript(script);
    if (!runUntil(loop, timeoutMs))
        return {};
    const QVariant json =
        eval(QStringLiteral("JSON.stringify(window.__testResults['%1'])").arg(token));
    return QJsonDocument::fromJson(json.toString().toUtf8()).object();
}

bool PageDriver::waitForLoad(int timeoutMs)
{
    QEventLoop loop;
    QObject::connect(m_page, &QWebEnginePage::loadFinished, &loop,
                     [&loop](bool ok) { loop.exit(ok ? 0 : 2); });
    return runUntil(loop, timeoutMs);
}

// A window message posted now is dispatched after everything queued before it.
bool PageDriver::settle()
{
    return await(QStringLiteral("new Promise(function (resolve) {"
                                " var marker = {__vantroMarker: Math.random()};"
                                " window.addEventListener('message', function (event) {"
                                "   if (event.data && event.data.__vantroMarker ==="
                                "       marker.__vantroMarker) resolve(true); });"
                                " window.postMessage(marker, '*'); })"))
        .value(QStringLiteral("ok"))
        .toBool();
}

QList<QJsonObject> PageDriver::objectList(const QString& expression)
{
    const QVariant json = eval(QStringLiteral("JSON.stringify(%1)").arg(expression));
    QList<QJsonObject> list;
    for (const QJsonValue& value : QJsonDocument::fromJson(json.toString().toUtf8()).array())
        list << value.toObject();
    return list;
}

QList<QJsonObject> PageDriver::desktopEvents()
{
    return objectList(QStringLiteral("window.__events.filter(function (event) {"
                                     " return event && 'vantroSignDesktopEvent' in event; })"));
}

bool AppWindow::open()
{
    if (!m_server.start(kDevPort) || !m_foreign.start()) {
        qWarning("cannot listen on 127.0.0.1:%d", int(kDevPort));
        return false;
    }
    m_window = std::make_unique<SignAppWindow>();
    m_driver = std::make_unique<PageDriver>(host()->page());
    m_trust = host()->trustRule();
    m_handler = host()->messageHandler();
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
    m_foreign.stop();
}

bool AppWindow::reset()
{
    host()->setTrustRule(m_trust);
    host()->setMessageHandler(m_handler);
    m_shell.onPickFiles = nullptr;
    m_shell.openedUrls.clear();
    m_shell.pickFilesCalls = 0;
    m_window->showNormal();
    return loadApp();
}

} // namespace vantro::testing
