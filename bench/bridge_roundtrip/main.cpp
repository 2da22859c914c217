// bridge_roundtrip_p50 / bridge_roundtrip_p99: a page awaits "sign:getStatus" 1000 times in a
// row through the real window and bridge. The reference is the same page loop against a native
// echo that answers each call at once with an answer of the same size, over the same transport
// (chrome.webview.postMessage, the web channel, the message event). Both run interleaved in
// blocks so drift in the machine's load hits both alike.
#include "e2e/BrowserHarness.h"

#include "app/OrderedJson.h"
#include "bridge/DesktopBridge.h"
#include "ui/SignAppWindow.h"
#include "ui/WebHost.h"

#include <QApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTextStream>

#include <algorithm>
#include <cmath>
#include <cstdio>

using namespace vantro;
using namespace vantro::testing;

namespace {

constexpr int kCalls = 1000;
constexpr int kBlock = 100;
constexpr int kWarmUp = 100;
constexpr int kLoopTimeoutMs = 120000;

struct Figure
{
    const char* name;
    double percentile;
    double target;
};

constexpr Figure kFigures[] = {{"bridge_roundtrip_p50", 50, 1.5}, {"bridge_roundtrip_p99", 99, 3}};

// Times `count` sequential awaited calls in the page; empty on failure.
QList<double> timeCalls(PageDriver& page, int count)
{
    const QJsonObject outcome = page.await(QStringLiteral(R"((async function () {
        var times = [];
        for (var i = 0; i < %1; ++i) {
            var start = performance.now();
            await vantroSign.getStatus();
            times.push(performance.now() - start);
        }
        return times;
    })())")
                                               .arg(count),
                                           kLoopTimeoutMs);
    QList<double> times;
    for (const QJsonValue& value : outcome.value(QStringLiteral("value")).toArray())
        times << value.toDouble();
    if (times.size() != count)
        qWarning("page loop failed: %s", qPrintable(outcome.value("message").toString()));
    return times;
}

double percentile(QList<double> values, double p)
{
    std::sort(values.begin(), values.end());
    const auto rank = qsizetype(std::ceil(p / 100.0 * double(values.size())));
    return values.at(std::clamp<qsizetype>(rank - 1, 0, values.size() - 1));
}

// Answers every call with the bridge's own status answer, built ahead of time.
WebHost::MessageHandler echoHandler(SignAppWindow& window, const QUrl& appUrl)
{
    const OrderedObject status =
        window.desktopBridge()->handle(QStringLiteral("sign:getStatus"), {}, appUrl.toString());
    const QByteArray result = status.toJson();
    WebHost* host = window.webHost();
    return [host, result](const QString& json, const QUrl&) {
        const QString id =
            QJsonDocument::fromJson(json.toUtf8()).object().value(QStringLiteral("id")).toString();
        host->postWebMessageAsJson(QByteArrayLiteral("{\"vantroSignBridgeResult\":true,\"id\":") +
                                   toCompactJson(id) + QByteArrayLiteral(",\"result\":") + result +
                                   '}');
    };
}

int run(AppWindow& app)
{
    if (app.page().eval(QStringLiteral("self.crossOriginIsolated")).toBool() == false)
        qWarning("page is not cross-origin isolated: timer resolution is coarse");
    WebHost* host = app.window()->webHost();
    const WebHost::MessageHandler bridge = host->messageHandler();
    const WebHost::MessageHandler echo = echoHandler(*app.window(), app.appUrl());

    QList<double> bridgeTimes;
    QList<double> echoTimes;
    for (int done = -kWarmUp; done < kCalls; done += kBlock) {
        const bool warmUp = done < 0;
        host->setMessageHandler(echo);
        const QList<double> echoBlock = timeCalls(app.page(), kBlock);
        host->setMessageHandler(bridge);
        const QList<double> bridgeBlock = timeCalls(app.page(), kBlock);
        if (echoBlock.size() != kBlock || bridgeBlock.size() != kBlock)
            return 2;
        if (!warmUp) {
            echoTimes << echoBlock;
            bridgeTimes << bridgeBlock;
        }
    }

    QTextStream out(stdout);
    bool withinTargets = true;
    for (const Figure& figure : kFigures) {
        const double value = percentile(bridgeTimes, figure.percentile);
        const double reference = percentile(echoTimes, figure.percentile);
        const double ratio = reference > 0 ? value / reference : INFINITY;
        out << "BENCH name=" << figure.name << " value=" << QString::number(value, 'f', 4)
            << " unit=ms reference=" << QString::number(reference, 'f', 4)
            << " ratio=" << QString::number(ratio, 'f', 3) << " target=" << figure.target << "\n";
        withinTargets = withinTargets && ratio <= figure.target;
    }
    return withinTargets ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    int result = 2;
    {
        AppWindow app;
        app.server().setCrossOriginIsolated(true);
        if (app.open())
            result = run(app);
        else
            std::fprintf(stderr, "bridge_roundtrip: the window did not load its page\n");
        app.close();
    }
    return result;
}
