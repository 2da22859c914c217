// The diagnostics view, offscreen: the card host rows, the saved-PIN buttons, the report copy,
// and the readers as a real pcscd reports them while the view stays open.
#include "usb/PcscDaemon.h"

#include "ui/DiagnosticsView.h"
#include "usb/RuntimeBridge.h"

#include <QApplication>
#include <QClipboard>
#include <QDeadlineTimer>
#include <QJsonArray>
#include <QJsonObject>
#include <QPushButton>
#include <QTest>

#include <memory>

using namespace vantro;
using namespace vantro::test;

namespace {

const QString kLithuanianEid = QStringLiteral("3b9d188131fc358031c0694d54434f5373020505d3");

OrderedObject helperStatus(bool found)
{
    return OrderedObject{{"helperAvailable", found},
                         {"helperRuntimePath", found ? "/opt/vantro/mw" : ""},
                         {"pendingMirrorCount", 2},
                         {"failedMirrorCount", 1}};
}

} // namespace

class TestDiagnosticsView : public QObject
{
    Q_OBJECT

    PcscDaemon m_daemon;
    QTemporaryDir m_home;
    std::unique_ptr<RuntimeBridge> m_runtime;
    QList<QUrl> m_opened;
    bool m_helperFound = true;
    QJsonObject m_middleware;

    std::unique_ptr<DiagnosticsView> openView()
    {
        DiagnosticsSources sources;
        sources.runtime = m_runtime.get();
        sources.helperStatus = [this] {
            return helperStatus(m_helperFound);
        };
        sources.logPath = m_home.filePath("logs/single-instance.log");
        sources.openUrl = [this](const QUrl& url) {
            m_opened << url;
            return true;
        };
        sources.middlewareReport = [report = m_middleware] {
            return report;
        };
        auto view = std::make_unique<DiagnosticsView>(std::move(sources));
        view->show();
        return view;
    }

    // Waits until the report holds `text` (the reader monitor reports on its own thread).
    static bool waitForReport(DiagnosticsView& view, const QString& text)
    {
        const QDeadlineTimer deadline(15000);
        while (!view.reportText().contains(text) && !deadline.hasExpired())
            QTest::qWait(50);
        return view.reportText().contains(text);
    }

    static void click(DiagnosticsView& view, const char* button)
    {
        auto* target = view.findChild<QPushButton*>(button);
        QVERIFY2(target, button);
        target->click();
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString missing = m_daemon.serveThisProcess();
        QVERIFY2(missing.isEmpty(), qPrintable(missing));
    }
    void init()
    {
        m_runtime = std::make_unique<RuntimeBridge>(m_home.filePath("HighRisk"), nullptr);
        m_runtime->setUrlOpener([this](const QUrl& url) {
            m_opened << url;
            return true;
        });
        m_opened.clear();
    }

    void helperRows_data()
    {
        QTest::addColumn<bool>("found");
        QTest::addColumn<QString>("state");
        QTest::addColumn<QString>("place");
        QTest::newRow("helper present") << true << "Būsena: rasta"
                                        << "Vieta: /opt/vantro/mw";
        QTest::newRow("helper absent") << false << "Būsena: nerasta"
                                       << "Vieta: —";
    }
    void helperRows()
    {
        QFETCH(bool, found);
        QFETCH(QString, state);
        QFETCH(QString, place);
        m_helperFound = found;
        const auto view = openView();
        const QString report = view->reportText();
        const QString helper =
            "Pasirašymo programa (USB raktai ir eID kortelės)\n  " + state + "\n  " + place + "\n";
        QVERIFY2(report.contains(helper), qPrintable(report));
        QVERIFY(report.contains("Laukia: 2\n  Nepavyko: 1\n"));
        QVERIFY(report.contains("Qt versija: " + QString(qVersion())));
    }

    // The diagnostics program's report, read off the GUI thread, becomes the drivers section.
    void middlewareRows_data()
    {
        QTest::addColumn<QJsonObject>("report");
        QTest::addColumn<QString>("rows");
        const QJsonObject certificate{{"subject", "CN=Jonas"},
                                      {"keyType", "EC"},
                                      {"keyBits", 256},
                                      {"keyUsage", QJsonArray{"nonRepudiation"}},
                                      {"extendedKeyUsage", QJsonArray()},
                                      {"notAfter", "2027-01-01T00:00:00Z"}};
        const QJsonObject token{{"label", "Jono kortelė"},
                                {"model", "ID v3"},
                                {"initialized", true},
                                {"pinFinalTry", true},
                                {"certificates", QJsonArray{certificate}}};
        const QJsonObject loaded{{"path", "/usr/lib/opensc-pkcs11.so"},
                                 {"loaded", true},
                                 {"description", "OpenSC"},
                                 {"version", "0.23"},
                                 {"slots", QJsonArray{QJsonObject{{"token", token}}}}};
        QTest::newRow("a token with its certificate")
            << QJsonObject{{"modules", QJsonArray{loaded}}}
            << "  /usr/lib/opensc-pkcs11.so: įkelta: OpenSC 0.23\n"
               "    priemonė „Jono kortelė“: ID v3, sertifikatų: 1, liko paskutinis PIN bandymas\n"
               "      sertifikatas: CN=Jonas (EC 256; nonRepudiation), galioja iki "
               "2027-01-01T00:00:00Z\n";
        QTest::newRow("a module that does not load")
            << QJsonObject{{"modules", QJsonArray{QJsonObject{{"path", "/usr/lib/x.so"},
                                                              {"loaded", false},
                                                              {"error", "bad module"}}}}}
            << "  /usr/lib/x.so: neįkelta: bad module\n";
        QTest::newRow("no middleware")
            << QJsonObject{{"modules", QJsonArray()}}
            << "  Būsena: tvarkyklių nerasta: įdiekite kortelės ar USB rakto gamintojo "
               "programinę įrangą arba OpenSC\n";
        QTest::newRow("no diagnostics program")
            << QJsonObject{{"error", "diagnostikos programa nerasta"}}
            << "  Būsena: diagnostikos programa nerasta\n";
    }
    void middlewareRows()
    {
        QFETCH(QJsonObject, report);
        QFETCH(QString, rows);
        m_middleware = report;
        const auto view = openView();
        const QString section = "Kortelių tvarkyklės (PKCS#11)\n" + rows;
        QVERIFY2(waitForReport(*view, section), qPrintable(view->reportText()));
    }

    void pinButtonsAndReportCopy()
    {
        const QString pins = m_runtime->storedPinDirectory();
        QVERIFY(QDir().mkpath(pins));
        for (const char* name : {"a.dpapi", "b.dpapi", "install-nonce.dpapi"})
            QVERIFY(QFile(pins + '/' + name).open(QIODevice::WriteOnly));
        m_runtime->refresh();
        const auto view = openView();
        QVERIFY(view->reportText().contains("Kiekis: 2\n"));
        click(*view, "clearPins");
        QVERIFY2(
            view->reportText().contains("Kiekis: 0\n  Aplankas: " + pins +
                                        "\n  Paskutinis veiksmas: Išsaugoti PIN pašalinti: 2.\n"),
            qPrintable(view->reportText()));
        QCOMPARE(QDir(pins).entryList(QDir::Files), QStringList{"install-nonce.dpapi"});

        click(*view, "openPinFolder");
        click(*view, "openLog");
        QCOMPARE(m_opened,
                 (QList<QUrl>{QUrl::fromLocalFile(pins),
                              QUrl::fromLocalFile(m_home.filePath("logs/single-instance.log"))}));
        click(*view, "copyReport");
        QCOMPARE(QApplication::clipboard()->text(), view->reportText());
        QVERIFY(view->reportText().startsWith("Vantro Sign diagnostika\n"));
    }

    // A card put in and taken out, the service stopped and started, all while the view is open.
    void readersFollowThePcscService()
    {
        QVERIFY(m_daemon.start(true));
        const auto view = openView();
        const QString empty = m_daemon.readerName() + ": kortelės nėra";
        QVERIFY2(waitForReport(*view, empty), qPrintable(view->reportText()));
        QVERIFY(m_daemon.insertCard(kLithuanianEid));
        const QString card = m_daemon.readerName() + ": ATR " + kLithuanianEid +
                             " — Lithuanian eID (MTCOS Pro 2.6 / MaskTech)";
        QVERIFY2(waitForReport(*view, card), qPrintable(view->reportText()));
        m_daemon.stop();
        QVERIFY2(waitForReport(*view, "kortelių tarnyba (PC/SC) nepasiekiama"),
                 qPrintable(view->reportText()));
        QVERIFY(!view->reportText().contains(card));
        // The card went with the old daemon's reader.
        QVERIFY(m_daemon.start(true));
        QVERIFY2(waitForReport(*view, empty), qPrintable(view->reportText()));
        QVERIFY(m_daemon.insertCard(kLithuanianEid));
        QVERIFY2(waitForReport(*view, card), qPrintable(view->reportText()));
        m_daemon.removeCard();
        QVERIFY2(waitForReport(*view, empty), qPrintable(view->reportText()));
    }

    void cleanupTestCase() { m_daemon.stop(); }
};

QTEST_MAIN(TestDiagnosticsView)
#include "tst_diagnostics_view.moc"
