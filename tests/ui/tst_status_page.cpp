// The local pages shown in place of the service: Lithuanian texts, a working retry address and
// nothing from the failure that could turn into markup.
#include "ui/StatusPage.h"

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
        QTest::addColumn<StatusKind>("other"); // its title must differ
        QTest::newRow("unreachable") << StatusKind::Unreachable << StatusKind::Crashed;
        QTest::newRow("certificate") << StatusKind::CertificateError << StatusKind::Unreachable;
        QTest::newRow("service error") << StatusKind::ServiceError << StatusKind::CertificateError;
        QTest::newRow("crashed") << StatusKind::Crashed << StatusKind::ServiceError;
    }

    void everyKindHasItsOwnPage()
    {
        QFETCH(StatusKind, kind);
        QFETCH(StatusKind, other);
        const StatusPageTexts texts = statusPageTexts(kind);
        QVERIFY(!texts.title.isEmpty() && !texts.message.isEmpty());
        QVERIFY(texts.title != statusPageTexts(other).title);
        const QUrl retry(QStringLiteral("http://127.0.0.1:8000/sign/app/"));
        const QString html = statusPageHtml(kind, retry, {}, false);
        QVERIFY(html.contains(QStringLiteral("<html lang=\"lt\">")));
        QVERIFY(
            html.contains(QStringLiteral("<title>%1</title>").arg(texts.title.toHtmlEscaped())));
        QVERIFY(html.contains(texts.message.toHtmlEscaped()));
        QVERIFY(html.contains(QStringLiteral(
            "id=\"retry\" href=\"http://127.0.0.1:8000/sign/app/\">Bandyti dar kartą")));
        // No failure detail given: no detail section.
        QVERIFY(!html.contains(QStringLiteral("Klaidos informacija")));
        QVERIFY(html != statusPageHtml(kind, retry, {}, true));
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
    }
};

QTEST_GUILESS_MAIN(StatusPageTest)
#include "tst_status_page.moc"
