// The injected scripts as text: placeholders filled once and correctly quoted, Qt's channel
// client folded into the shim, and the injection settings.
#include "api/Endpoints.h"
#include "ui/PageScripts.h"

#include <QRegularExpression>
#include <QtTest>

using namespace vantro;

namespace {

QString lineStarting(const QString& source, const QString& start)
{
    for (const QString& line : source.split(QLatin1Char('\n'))) {
        if (line.trimmed().startsWith(start))
            return line.trimmed();
    }
    return {};
}

} // namespace

class PageScriptsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void fillsTheApplicationOrigin_data()
    {
        QTest::addColumn<QString>("origin");
        QTest::addColumn<QString>("line");
        QTest::newRow("local origin") << "http://127.0.0.1:8000"
                                      << "var APP_ORIGIN = \"http://127.0.0.1:8000\";";
        QTest::newRow("none means production")
            << QString()
            << QStringLiteral("var APP_ORIGIN = \"%1\";").arg(endpoints::productionOrigin());
        QTest::newRow("quote and backslash escaped") << "http://a\"b\\c"
                                                     << "var APP_ORIGIN = \"http://a\\\"b\\\\c\";";
        QTest::newRow("placeholder-like text is not filled again")
            << "http://x/%2%3"
            << "var APP_ORIGIN = \"http://x/%2%3\";";
    }

    void fillsTheApplicationOrigin()
    {
        QFETCH(QString, origin);
        QFETCH(QString, line);
        const QString source = pagescripts::pageApiSource(origin);
        QCOMPARE(lineStarting(source, QStringLiteral("var APP_ORIGIN")), line);
        QCOMPARE(lineStarting(source, QStringLiteral("var VERSION")),
                 QStringLiteral("var VERSION = '0.2.0-stage2a';"));
        QCOMPARE(lineStarting(source, QStringLiteral("var ALLOWED_ORIGINS")),
                 QStringLiteral("var ALLOWED_ORIGINS = [\"%1\", \"%2\", 'http://localhost:8000', "
                                "'http://127.0.0.1:8000', APP_ORIGIN];")
                     .arg(endpoints::productionOrigin(), endpoints::portalOrigin()));
    }

    void leavesNoPlaceholderBehind()
    {
        const QString source = pagescripts::pageApiSource(QStringLiteral("https://app.example"));
        QVERIFY(!source.isEmpty());
        static const QRegularExpression placeholder(QStringLiteral("%[0-9]"));
        QVERIFY2(!placeholder.match(source).hasMatch(),
                 qPrintable(placeholder.match(source).captured()));
    }

    void shimCarriesTheChannelClient()
    {
        const QString shim = pagescripts::shimSource();
        QVERIFY(shim.contains(QStringLiteral("var QWebChannel = function")));
        QVERIFY(!shim.contains(QStringLiteral("@QWEBCHANNEL_JS@")));
    }

    void scriptsRunAtDocumentCreationInTheMainFrameOnly()
    {
        const QWebEngineScript script =
            pagescripts::documentScript(QStringLiteral("name"), QStringLiteral("1;"));
        QCOMPARE(script.name(), QStringLiteral("name"));
        QCOMPARE(script.sourceCode(), QStringLiteral("1;"));
        QCOMPARE(script.injectionPoint(), QWebEngineScript::DocumentCreation);
        QCOMPARE(script.worldId(), quint32(QWebEngineScript::MainWorld));
        QCOMPARE(script.runsOnSubFrames(), false);
    }
};

QTEST_GUILESS_MAIN(PageScriptsTest)
#include "tst_page_scripts.moc"
