// What of an activation link may reach a log file.
#include "app/ActivationLink.h"

#include <QtTest>

using namespace vantro;

class ActivationLinkTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void redacts_data()
    {
        QTest::addColumn<QString>("link");
        QTest::addColumn<QString>("redacted");
        // Both texts follow "vantrosign:" unless the row says otherwise.
        const auto add = [](const char* name, const QString& link, const QString& redacted) {
            QTest::newRow(name) << "vantrosign:" + link << "vantrosign:" + redacted;
        };
        add("action without secrets", "//activate", "//activate");
        add("query values masked, keys kept", "//activate?code=S&ws=W1",
            "//activate?code=***&ws=***");
        add("code in the path", "//activate/S-123", "//activate/***");
        add("code as the host", "//S", "//***");
        add("opaque code", "S", "***");
        add("opaque action with code", "activate/S", "activate/***");
        add("credentials in authority", "//user:S@activate", "//***");
        add("bare token in query", "//activate?S&code=X", "//activate?***&code=***");
        add("percent-encoded key masked whole", "//activate?c%6Fde=S", "//activate?***");
        add("value holding '='", "//activate?token=a=b==", "//activate?token=***");
        add("empty query items dropped", "//activate?&&code=X&", "//activate?code=***");
        add("fragment masked", "//activate#S", "//activate#***");
        add("'?' inside the fragment", "//activate#a?code=S", "//activate#***");
        QTest::newRow("capitalised scheme and action") << "VantroSign://Activate?code=S"
                                                       << "vantrosign://activate?code=***";
        QTest::newRow("not a link left alone") << "--tray"
                                               << "--tray";
    }
    void redacts()
    {
        QFETCH(QString, link);
        QTEST(redactActivationLink(link), "redacted");
    }

    void redactsEveryLinkAmongArguments()
    {
        QCOMPARE(redactedArguments(
                     {"/usr/bin/vantro-sign", "--tray", "vantrosign://open?c=1", "VANTROSIGN:2"}),
                 "/usr/bin/vantro-sign --tray vantrosign://open?c=*** vantrosign:***");
    }
};

QTEST_GUILESS_MAIN(ActivationLinkTest)
#include "tst_activation_link.moc"
