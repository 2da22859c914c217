// The page API script as text: its placeholders filled once and correctly quoted, and the
// injection settings (main frame only, before the page's own scripts).
#include "api/Endpoints.h"
#include "ui/PageScripts.h"

#include <QRegularExpression>
#include <QtTest>

using namespace vantro;

class PageScriptsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void fillsTheApplicationOrigin()
    {
        const QString production = endpoints::productionOrigin();
        const QString allowed = QStringLiteral("var ALLOWED_ORIGINS = [\"%1\", \"%2\", "
                                               "'http://localhost:8000', 'http://127.0.0.1:8000', "
                                               "APP_ORIGIN];\n")
                                    .arg(production, endpoints::portalOrigin());
        static const QRegularExpression placeholder("%[0-9]");
        // An origin and its literal in the script; none means production.
        const QString origins[][2] = {{"http://127.0.0.1:8000", "\"http://127.0.0.1:8000\""},
                                      {QString(), '"' + production + '"'},
                                      {"http://a\"b\\c", "\"http://a\\\"b\\\\c\""},
                                      {"http://x/%2%3", "\"http://x/%2%3\""}};
        for (const auto& [origin, literal] : origins) {
            const QString source = pagescripts::pageApiSource(origin);
            QVERIFY2(source.contains("var APP_ORIGIN = " + literal + ";\n"), qPrintable(literal));
            QVERIFY(source.contains("var VERSION = '0.2.0-stage2a';\n"));
            QVERIFY(source.contains(allowed));
            QCOMPARE(source.count(placeholder), origin.count(placeholder));
        }
    }

    // Frames never get the channel, so the scripts stay out of them.
    void scriptsRunAtDocumentCreationInTheMainFrameOnly()
    {
        const QWebEngineScript script = pagescripts::documentScript("name", "1;");
        QCOMPARE(script.sourceCode(), "1;");
        QCOMPARE(script.injectionPoint(), QWebEngineScript::DocumentCreation);
        QCOMPARE(script.worldId(), quint32(QWebEngineScript::MainWorld));
        QVERIFY(!script.runsOnSubFrames());
    }
};

QTEST_GUILESS_MAIN(PageScriptsTest)
#include "tst_page_scripts.moc"
