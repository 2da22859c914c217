// The local pages shown in place of the service: Lithuanian texts, a working retry address and
// nothing from the failure that could turn into markup.
#include "ui/StatusPage.h"

#include <QSet>
#include <QtTest>

using namespace vantro;

Q_DECLARE_METATYPE(vantro::StatusKind)

class StatusPageTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyKindHasItsOwnPage_data()
    {
        QTest::addColumn<StatusKind>("kind");
        QTest::newRow("unreachable") << StatusKind::Unreachable;
        QTest::newRow("certificate") << StatusKind::CertificateError;
        QTest::newRow("service error") << StatusKind::ServiceError;
        QTest::newRow("crashed") << StatusKind::Crashed;
    }

    void everyKindHasItsOwnPage()
    {
        QFETCH(StatusKind, kind);
        const StatusPageTexts texts = statusPageTexts(kind);
        QVERIFY(!texts.title.isEmpty());
        QVERIFY(!texts.message.isEmpty());
        const QString html = statusPageHtml(
            kind, QUrl(QStringLiteral("http://127.0.0.1:8000/sign/app/")), {}, false);
        QVERIFY(html.contains(QStringLiteral("<html lang=\"lt\">")));
        QVERIFY(
            html.contains(QStringLiteral("<title>%1</title>").arg(texts.title.toHtmlEscaped())));
        QVERIFY(html.contains(texts.message.toHtmlEscaped()));
        QVERIFY(html.contains(QStringLiteral(
            "id=\"retry\" href=\"http://127.0.0.1:8000/sign/app/\">Bandyti dar kartą")));
        QVERIFY(!html.contains(QStringLiteral("Klaidos informacija")));
    }

    void titlesDiffer()
    {
        QSet<QString> titles;
        for (StatusKind kind : {StatusKind::Unreachable, StatusKind::CertificateError,
                                StatusKind::ServiceError, StatusKind::Crashed})
            titles.insert(statusPageTexts(kind).title);
        QCOMPARE(titles.size(), 4);
    }

    void failureDetailAndAddressAreEscaped()
    {
        const QUrl retry(QStringLiteral("http://127.0.0.1:8000/sign/app/?a=1&b=\"x\""));
        const QString html = statusPageHtml(StatusKind::ServiceError, retry,
                                            QStringLiteral("<script>alert(1)</script> 50%1"), true);
        QVERIFY(!html.contains(QStringLiteral("<script>")));
        QVERIFY(html.contains(QStringLiteral("&lt;script&gt;alert(1)&lt;/script&gt; 50%1")));
        QVERIFY(html.contains(
            QStringLiteral("href=\"http://127.0.0.1:8000/sign/app/?a=1&amp;b=%22x%22\"")));
        QVERIFY(!html.contains(QStringLiteral("b=\"x\"")));
    }

    void themeSetsTheColours()
    {
        const QUrl retry(QStringLiteral("http://127.0.0.1:8000/sign/app/"));
        QVERIFY(statusPageHtml(StatusKind::Crashed, retry, {}, true) !=
                statusPageHtml(StatusKind::Crashed, retry, {}, false));
    }
};

QTEST_GUILESS_MAIN(StatusPageTest)
#include "tst_status_page.moc"
