#include "ui/PageScripts.h"

#include "api/Endpoints.h"
#include "app/OrderedJson.h"
#include "ui/Logging.h"

#include <QFile>

namespace vantro::pagescripts {

namespace {

constexpr char kShimPath[] = ":/vantro/scripts/webview-shim.js";
constexpr char kPageApiPath[] = ":/vantro/scripts/vantro-page-api.js";
constexpr char kWebChannelPath[] = ":/qtwebchannel/qwebchannel.js";
constexpr char kWebChannelMarker[] = "/*@QWEBCHANNEL_JS@*/";

QString readResource(const char* path)
{
    QFile file(QString::fromLatin1(path));
    if (!file.open(QIODevice::ReadOnly)) {
        qCWarning(lcUi) << "script resource missing:" << path;
        return {};
    }
    return QString::fromUtf8(file.readAll());
}

QString jsonLiteral(const QString& text)
{
    return QString::fromUtf8(toCompactJson(text));
}

} // namespace

QString shimSource()
{
    const QString shim = readResource(kShimPath);
    const QString channel = readResource(kWebChannelPath);
    if (shim.isEmpty() || channel.isEmpty())
        return {};
    return QString(shim).replace(QLatin1String(kWebChannelMarker), channel);
}

QString pageApiSource(const QString& appOrigin)
{
    const QString source = readResource(kPageApiPath);
    if (source.isEmpty())
        return {};
    const QString origin = appOrigin.isEmpty() ? endpoints::productionOrigin() : appOrigin;
    // One pass, so text substituted for one placeholder is never scanned for the next.
    return source.arg(jsonLiteral(origin), QString::fromLatin1(kBridgeScriptVersion),
                      jsonLiteral(endpoints::productionOrigin()),
                      jsonLiteral(endpoints::portalOrigin()));
}

QWebEngineScript documentScript(const QString& name, const QString& source)
{
    QWebEngineScript script;
    script.setName(name);
    script.setSourceCode(source);
    script.setInjectionPoint(QWebEngineScript::DocumentCreation);
    script.setWorldId(QWebEngineScript::MainWorld);
    script.setRunsOnSubFrames(false);
    return script;
}

} // namespace vantro::pagescripts
