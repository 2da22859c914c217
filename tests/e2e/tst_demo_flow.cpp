// The demo as a newcomer meets it: a fresh device activated on the native screen with a code the
// stand-in printed, then one document clicked through the demo web application from import to
// upload, signing on the stand-in, mirror into the local root and delivery acknowledgement.
#include "e2e/BrowserHarness.h"

#include "app/AppState.h"
#include "app/FileHash.h"
#include "bridge/DesktopBridge.h"
#include "DevService.h"
#include "store/LocalStore.h"
#include "support/CmsCheck.h"
#include "ui/ActivationScreen.h"
#include "ui/LocalRootWatch.h"
#include "usb/HelperRegistry.h"

#ifdef VANTRO_NATIVE_HOST
#include "nativehost/SoftHsmToken.h"
#endif

#include <QProcess>
#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

using namespace vantro;
using namespace vantro::testing;

namespace {
constexpr int kFlowTimeoutMs = 30000;
const QByteArray kDocument = "%PDF-1.7 demo agreement";
} // namespace

class DemoFlowTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    std::unique_ptr<dev::DevService> m_service;
    std::unique_ptr<SignAppWindow> m_window;
    RecordingShell m_shell;
    PageDriver m_page;

    QString path(const QString& name) const { return m_dir.filePath(name); }
    LocalStore* store() const { return m_window->desktopBridge()->localStore(); }
    QString text(const QString& selector)
    {
        return m_page.json("(document.querySelector(\"" + selector + "\") || {}).textContent")
            .toString();
    }
    // Clicks as the user would, then waits for the page to finish what the click started.
    void click(const QString& selector)
    {
        QVERIFY2(m_page.json("!!document.querySelector(\"" + selector + "\")").toBool(),
                 qPrintable(selector));
        m_page.eval("document.querySelector(\"" + selector + "\").click()");
        QTRY_VERIFY_WITH_TIMEOUT(!m_page.json("'busy' in document.body.dataset").toBool(),
                                 kFlowTimeoutMs);
    }
    QString documentRow() { return "tr[data-id='" + m_documentId + "']"; }
    QString m_documentId;

private Q_SLOTS:
    void initTestCase()
    {
        qunsetenv("DBUS_SESSION_BUS_ADDRESS");
        QVERIFY(m_dir.isValid());
        // A device that was never activated and an empty store, whatever earlier runs left in
        // this test's home.
        for (const char* variable : {"LOCALAPPDATA", "XDG_DATA_HOME", "XDG_CONFIG_HOME"})
            qputenv(variable, path(variable).toUtf8());
        QVERIFY(AppState().setLocalRoot(path("Vantro Sign")));
        QFile document(path("Sutartis.pdf"));
        QVERIFY(document.open(QIODevice::WriteOnly) && document.write(kDocument) > 0);
        document.close();

        m_service = std::make_unique<dev::DevService>(path("service"));
        QVERIFY(m_service->isReady());
        QCOMPARE(m_service->listen(QHostAddress::LocalHost, kDevPort), kDevPort);

        m_window = std::make_unique<SignAppWindow>();
        QSignalSpy firstRun(m_window->localRootWatch(), &LocalRootWatch::reconciled);
        m_page.page = m_window->webHost()->page();
        m_window->setDesktopShell(&m_shell);
        m_window->show();
        QVERIFY(m_page.waitForLoad());
        QVERIFY(!firstRun.isEmpty() || firstRun.wait(kLoadTimeoutMs));
    }

    void cleanupTestCase() { m_window.reset(); }

    void activationWithAPrintedCode()
    {
        QTRY_VERIFY(m_window->activationScreen() && m_window->activationScreen()->isVisible());
        m_window->activationScreen()->setCode(m_service->store().activationCodes().first());
        m_window->activationScreen()->findChild<QPushButton*>("activate")->click();
        QVERIFY(m_page.waitForLoad());
        QVERIFY(m_window->appState()->isActivated());
        QCOMPARE(m_service->store().heartbeatCount(), 1);
        QTRY_VERIFY(text("#device").contains("kompiuteris aktyvuotas"));
        QCOMPARE(m_page.url().path(), "/sign/app/documents/");
    }

    // What the page says when the desktop refuses: the user's language, not a stack trace.
    void refusedImportIsExplained_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("message");
        QTest::newRow("unsupported type")
            << "setup.exe" << QByteArray("MZ")
            << "Šio tipo failų importuoti negalima. (VANTRO_SIGN_IMPORT_UNSUPPORTED_TYPE)";
        QTest::newRow("empty file") << "Tuscias.pdf" << QByteArray()
                                    << "Failas tuščias arba dar neparuoštas. Bandykite dar kartą "
                                       "vėliau. (VANTRO_SIGN_IMPORT_FILE_NOT_READY)";
    }
    void refusedImportIsExplained()
    {
        QFETCH(QString, name);
        QFETCH(QByteArray, content);
        QFETCH(QString, message);
        QFile file(path(name));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
        file.close();
        m_shell.onPickFiles = [this, name] {
            return QStringList{path(name)};
        };
        click("#import");
        QCOMPARE(text("#message"), message);
        QCOMPARE(store()->listDocuments({}).size(), 0);
    }

    void importUploadSign()
    {
        m_shell.onPickFiles = [this] {
            return QStringList{path("Sutartis.pdf")};
        };
        click("#import");
        QCOMPARE(text("#message"), "Pridėta dokumentų: 1.");
        const QJsonArray documents = store()->listDocuments({});
        QCOMPARE(documents.size(), 1);
        m_documentId = documents.first()["id"].toString();
        QCOMPARE(text(documentRow() + " .cloud"), "Ne");
        QCOMPARE(text(documentRow() + " .status"), "Tik šiame kompiuteryje");

        click(documentRow() + " [data-action=upload]");
        QCOMPARE(text(documentRow() + " .cloud"), "Taip");
        QCOMPARE(text(documentRow() + " .status"), "Įkeltas");
        QCOMPARE(m_service->store().document(1)["sha256"].toString(), sha256Hex(kDocument));

        click(documentRow() + " [data-action=sign]");
        QCOMPARE(text("#message"), "Pasirašytas failas išsaugotas: Pasirasyta/Sutartis.p7m");
        QCOMPARE(text(documentRow() + " .status"), "Pasirašytas");
        QVERIFY(
            !m_page.json("!!document.querySelector(\"" + documentRow() + " [data-action=sign]\")")
                 .toBool());
    }

    void signedCopyIsInTheRootAndVerifies()
    {
        const QString signedPath = QDir(path("Vantro Sign")).filePath("Pasirasyta/Sutartis.p7m");
        QVERIFY(QFileInfo::exists(signedPath));
        QCOMPARE(cmsVerifiedContent(signedPath, m_service->signerCertificate()), kDocument);

        // The desktop's records and the service's agree on the same bytes.
        const QJsonObject version =
            store()->getDocument(m_documentId)["current_version"].toObject();
        QCOMPARE(version["kind"].toString(), "SIGNED");
        QCOMPARE(version["sha256"].toString(), sha256File(signedPath));
        QCOMPARE(store()->getMirrorItem("sig-1")["status"].toString(), "ACKNOWLEDGED");
        QCOMPARE(m_service->store().document(1)["signed_sha256"].toString(),
                 sha256File(signedPath));
        QCOMPARE(m_service->store().acknowledgementCount(), 1);
    }

    void revealOpensTheSignedFolder()
    {
        click(documentRow() + " [data-action=reveal]");
        QCOMPARE(m_shell.openedUrls.size(), 1);
        QCOMPARE(m_shell.openedUrls.first().toLocalFile(),
                 QDir(path("Vantro Sign")).filePath("Pasirasyta"));
    }

    // Deleting asks once more on the button itself, then the row and the record are gone.
    void deleteNeedsConfirmation()
    {
        click(documentRow() + " [data-action=delete]");
        QCOMPARE(store()->listDocuments({}).size(), 1);
        QCOMPARE(text(documentRow() + " [data-action=delete]"), "Patvirtinti ištrynimą");
        click(documentRow() + " [data-action=delete]");
        QCOMPARE(text("#message"), "„Sutartis“ ištrintas.");
        QCOMPARE(store()->listDocuments({}).size(), 0);
        QVERIFY(!m_page.json("!!document.querySelector(\"" + documentRow() + "\")").toBool());
    }

#ifdef VANTRO_NATIVE_HOST
    // The card path of the demo: the page asks the card host for the certificate and a
    // signature of the hash the stand-in gives, and the stand-in packs the card's signature.
    void signWithASoftwareToken()
    {
        SoftHsmToken token("Demo card", "EC", "1234");
        QVERIFY2(token.error().isEmpty(), qPrintable(token.error()));
        qputenv("VANTRO_SIGN_PKCS11_MODULE", kSoftHsmModule.toUtf8());
        qputenv("VANTRO_SIGN_TEST_PIN", "1234");
        m_window->desktopBridge()->useHelperRegistry(
            std::make_shared<HelperRegistry>(QFileInfo(VANTRO_NATIVE_HOST).absolutePath()));
        QFile document(path("Kortele.pdf"));
        QVERIFY(document.open(QIODevice::WriteOnly) && document.write(kDocument) > 0);
        document.close();
        m_shell.onPickFiles = [this] {
            return QStringList{path("Kortele.pdf")};
        };
        click("#import");
        m_documentId = store()->listDocuments({}).first()["id"].toString();

        click(documentRow() + " [data-action=sign-card]");
        QCOMPARE(text("#message"), "Pasirašytas failas išsaugotas: Pasirasyta/Kortele.p7m");
        const QString signedPath = QDir(path("Vantro Sign")).filePath("Pasirasyta/Kortele.p7m");
        QCOMPARE(cmsVerifiedContent(signedPath, token.path("sign.pem")), kDocument);
    }
#endif
};

QTEST_MAIN(DemoFlowTest)
#include "tst_demo_flow.moc"
