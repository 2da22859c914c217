// The local pages shown in place of the service: Lithuanian texts, a working retry address and
// nothing from the failure that could turn into markup.
#include "ui/StatusPage.h"

#include <QtTest>

using namespace vantro;

class StatusPageTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everyKindHasItsOwnPage()
    {
        const QUrl retry("http://127.0.0.1:8000/sign/app/");
        QSet<QString> titles;
        for (StatusKind kind : {StatusKind::Unreachable, StatusKind::CertificateError,
                                StatusKind::ServiceError, StatusKind::Crashed}) {
            const StatusPageTexts texts = statusPageTexts(kind);
            const QString html = statusPageHtml(kind, retry, {}, false);
            titles << texts.title;
            QVERIFY(!texts.title.isEmpty() && !texts.message.isEmpty());
            for (const QString& part :
                 {QString("<html lang=\"lt\">"),
                  "<title>" + texts.title.toHtmlEscaped() + "</title>",
                  texts.message.toHtmlEscaped(),
                  "id=\"retry\" href=\"" + retry.toString() + "\">Bandyti dar kartą"})
                QVERIFY2(html.contains(part), qPrintable(part));
            QVERIFY(!html.contains("Klaidos informacija")); // no detail, no detail section
        }
        QCOMPARE(titles.size(), 4);
    }

    void failureDetailAndAddressAreEscaped()
    {
        const QString html =
            statusPageHtml(StatusKind::ServiceError, QUrl("http://127.0.0.1:8000/?a=1&b=\"x\""),
                           "<script>alert(1)</script> 50%1", true);
        QVERIFY(!html.contains("<script>"));
        QVERIFY(html.contains("&lt;script&gt;alert(1)&lt;/script&gt; 50%1"));
        QVERIFY(html.contains("href=\"http://127.0.0.1:8000/?a=1&amp;b=%22x%22\""));
    }
};

QTEST_GUILESS_MAIN(StatusPageTest)
#include "tst_status_page.moc"
