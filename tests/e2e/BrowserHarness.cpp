#include "e2e/BrowserHarness.h"

#include "ui/LocalRootWatch.h"

#include <QSignalSpy>

#include <QHttpServerResponse>
#include <QJsonDocument>
#include <QPointer>
#include <QTimer>

namespace vantro::testing {

bool runUntil(QEventLoop& loop, int timeoutMs)
{
    QTimer::singleShot(timeoutMs, &loop, [&loop] { loop.exit(1); });
    return loop.exec() == 0;
}

bool PageServer::start(quint16 wanted)
{
    static const QByteArray page = R"(<!DOCTYPE html>
<html><head><meta charset="utf-8"><title>page</title><script>
window.__events = [], window.__answers = [];
addEventListener('message', function (e) { __events.push(e.data); });
if (window.chrome && chrome.webview)
    chrome.webview.addEventListener('message', function (e) { __answers.push(e.data); });
</script></head><body><p>test page</p></body></html>)";
    server = std::make_unique<QHttpServer>();
    server->route("/<arg>", [this](const QUrl&, const QHttpServerRequest& request) {
        const QString path = request.url().path();
        if (path.startsWith("/sign/api/") || path.endsWith("/download/"))
            return api.respond(request);
        if (request.url().path() != "/favicon.ico")
            requestedPaths << request.url().path();
        QHttpServerResponse response("text/html; charset=utf-8", page);
        if (isolated) {
            response.setHeader("Cross-Origin-Opener-Policy", "same-origin");
            response.setHeader("Cross-Origin-Embedder-Policy", "require-corp");
        }
        return response;
    });
    return (port = server->listen(QHostAddress::LocalHost, wanted)) != 0;
}

QVariant PageDriver::eval(const QString& script, int timeoutMs)
{
    // The callback may come after a timeout, when this frame is gone.
    QEventLoop loop;
    auto value = std::make_shared<QVariant>();
    page->runJavaScript(script, [value, guard = QPointer<QEventLoop>(&loop)](const QVariant& v) {
        *value = v;
        if (guard)
            guard->quit();
    });
    return runUntil(loop, timeoutMs) ? *value : QVariant();
}

QJsonValue PageDriver::json(const QString& expression)
{
    const QString text = eval("JSON.stringify([" + expression + "])").toString();
    return QJsonDocument::fromJson(text.toUtf8()).array().at(0);
}

QJsonObject PageDriver::await(const QString& expression, int timeoutMs)
{
    // The page announces completion through its title: a signal, so nothing polls.
    const QString token = QStringLiteral("vantro-test-%1").arg(++sequence);
    const QString script =
        QStringLiteral(
            "Promise.resolve().then(function () { return (%2); }).then(function (value) {"
            " return {ok: true, value: value === undefined ? null : value}; }, function (error) {"
            " return {ok: false, code: (error && error.code) || null, message: String(error &&"
            " error.message !== undefined ? error.message : error)}; }).then(function (outcome) {"
            " (window.__testResults = window.__testResults || {})['%1'] = outcome;"
            " document.title = '%1'; }); 0")
            .arg(token, expression);
    QEventLoop loop;
    QObject::connect(page, &QWebEnginePage::titleChanged, &loop, [&loop, token](auto& title) {
        if (title == token)
            loop.quit();
    });
    page->runJavaScript(script);
    if (!runUntil(loop, timeoutMs))
        return {};
    return json("__testResults['" + token + "']").toObject();
}

bool PageDriver::load(const QUrl& url)
{
    page->load(url);
    return waitForLoad();
}

bool PageDriver::waitForLoad(int timeoutMs)
{
    QEventLoop loop;
    QObject::connect(page, &QWebEnginePage::loadFinished, &loop,
                     [&loop](bool ok) { loop.exit(ok ? 0 : 2); });
    return runUntil(loop, timeoutMs);
}

// A window message posted now is dispatched after everything queued before it.
bool PageDriver::settle()
{
    return await("new Promise(function (resolve) { var marker = {settle: Math.random()};"
                 " addEventListener('message', function (e) { if (e.data && e.data.settle"
                 " === marker.settle) resolve(true); }); postMessage(marker, '*'); })")
        .value("ok")
        .toBool();
}

bool AppWindow::open()
{
    if (!m_server.start(kDevPort) || !foreign.start()) {
        qWarning("cannot listen on 127.0.0.1:%d", int(kDevPort));
        return false;
    }
    m_window = std::make_unique<SignAppWindow>();
    // The root watch reconciles once at start; tests begin after it, so its event reaches no
    // test's page.
    QSignalSpy firstRun(m_window->localRootWatch(), &LocalRootWatch::reconciled);
    m_page.page = host()->page();
    m_trust = host()->trustRule();
    m_handler = host()->messageHandler();
    m_window->setDesktopShell(&shell);
    m_window->show();
    // The window started loading in its constructor; the signal cannot have come yet.
    return m_page.waitForLoad() && (!firstRun.isEmpty() || firstRun.wait(kLoadTimeoutMs));
}

void AppWindow::close()
{
    m_window.reset();
}

bool AppWindow::reset()
{
    host()->setTrustRule(m_trust);
    host()->setMessageHandler(m_handler);
    shell = RecordingShell();
    m_window->showNormal();
    return m_page.load(appUrl());
}

} // namespace vantro::testing
