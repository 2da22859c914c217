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
    void fillsTheApplicationOrigin_data()
    {
        QTest::addColumn<QString>("origin");
        QTest::addColumn<QString>("literal");
        QTest::newRow("local origin") << "http://127.0.0.1:8000"
                                      << "\"http://127.0.0.1:8000\"";
        QTest::newRow("none means production")
            << QString() << QStringLiteral("\"%1\"").arg(endpoints::productionOrigin());
        QTest::newRow("quote and backslash escaped") << "http://a\"b\\c"
                                                     << "\"http://a\\\"b\\\\c\"";
        QTest::newRow("placeholder-like text is not filled again") << "http://x/%2%3"
                                                                   << "\"http://x/%2%3\"";
    }

    void fillsTheApplicationOrigin()
    {
        QFETCH(QString, origin);
        QFETCH(QString, literal);
        const QString source = pagescripts::pageApiSource(origin);
        QVERIFY(source.contains(QStringLiteral("var APP_ORIGIN = %1;\n").arg(literal)));
        QVERIFY(source.contains(QStringLiteral("var VERSION = '0.2.0-stage2a';\n")));
        QVERIFY(
            source.contains(QStringLiteral("var ALLOWED_ORIGINS = [\"%1\", \"%2\", "
                                           "'http://localhost:8000', 'http://127.0.0.1:8000', "
                                           "APP_ORIGIN];\n")
                                .arg(endpoints::productionOrigin(), endpoints::portalOrigin())));
        static const QRegularExpression placeholder(QStringLiteral("%[0-9]"));
        QCOMPARE(source.count(placeholder), origin.count(placeholder));
    }

    // Frames never get the channel, so the scripts stay out of them.
    void scriptsRunAtDocumentCreationInTheMainFrameOnly()
    {
        const QWebEngineScript script =
            pagescripts::documentScript(QStringLiteral("name"), QStringLiteral("1;"));
        QCOMPARE(script.sourceCode(), QStringLiteral("1;"));
        QCOMPARE(script.injectionPoint(), QWebEngineScript::DocumentCreation);
        QCOMPARE(script.worldId(), quint32(QWebEngineScript::MainWorld));
        QCOMPARE(script.runsOnSubFrames(), false);
    }
};

QTEST_GUILESS_MAIN(PageScriptsTest)
#include "tst_page_scripts.moc"
