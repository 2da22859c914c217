// The card host's own rules: which certificate serves which purpose, what a PKCS#11 failure
// tells the page, and the PIN dialog as a user meets it (offscreen).
#include "app/Errors.h"
#include "Certificates.h"
#include "PinPrompt.h"
#include "Pkcs11.h"

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTimer>
#include <QtTest>

using namespace vantro;
using namespace vantro::host;

class HostRulesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void certificateRoles_data()
    {
        QTest::addColumn<QStringList>("keyUsage"); // "none": no key usage extension
        QTest::addColumn<QStringList>("extended");
        QTest::addColumn<int>("signing");
        QTest::addColumn<int>("authentication");
        QTest::newRow("qualified signing")
            << QStringList{"nonRepudiation"} << QStringList() << 2 << 0;
        QTest::newRow("eID authentication")
            << QStringList{"digitalSignature"} << QStringList{"clientAuth"} << 0 << 3;
        QTest::newRow("plain digital signature")
            << QStringList{"digitalSignature"} << QStringList() << 0 << 2;
        QTest::newRow("one certificate for both")
            << QStringList{"digitalSignature", "nonRepudiation"} << QStringList() << 2 << 1;
        QTest::newRow("no key usage at all") << QStringList{"none"} << QStringList() << 1 << 1;
        QTest::newRow("encryption only")
            << QStringList{"keyEncipherment"} << QStringList() << 0 << 0;
    }
    void certificateRoles()
    {
        QFETCH(QStringList, keyUsage);
        QFETCH(QStringList, extended);
        QFETCH(int, signing);
        QFETCH(int, authentication);
        CertificateInfo info;
        info.parsed = true;
        info.keyType = KeyType::Ec;
        info.hasKeyUsage = keyUsage != QStringList{"none"};
        info.keyUsage = info.hasKeyUsage ? keyUsage : QStringList();
        info.extendedKeyUsage = extended;
        QCOMPARE(roleFitness(info, CertificateRole::Signing), signing);
        QCOMPARE(roleFitness(info, CertificateRole::Authentication), authentication);
        info.keyType = KeyType::Unknown; // a key the host cannot sign with serves nothing
        QCOMPARE(roleFitness(info, CertificateRole::Signing), 0);
    }

    void failureCodes_data()
    {
        QTest::addColumn<qulonglong>("rv");
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("message");
        QTest::newRow("wrong PIN") << qulonglong(CKR_PIN_INCORRECT) << "ERR_VANTRO_PIN_INCORRECT"
                                   << "C_Login failed with CKR_PIN_INCORRECT.";
        QTest::newRow("locked PIN") << qulonglong(CKR_PIN_LOCKED) << "ERR_VANTRO_PIN_LOCKED"
                                    << "C_Login failed with CKR_PIN_LOCKED.";
        QTest::newRow("PIN pad cancelled")
            << qulonglong(CKR_FUNCTION_CANCELED) << "ERR_WEBEID_USER_CANCELLED"
            << "C_Login failed with CKR_FUNCTION_CANCELED.";
        QTest::newRow("device removed") << qulonglong(CKR_DEVICE_REMOVED) << "PKCS11_TOKEN_REMOVED"
                                        << "The card or token was removed (CKR_DEVICE_REMOVED).";
        QTest::newRow("session gone with the token")
            << qulonglong(CKR_SESSION_HANDLE_INVALID) << "PKCS11_TOKEN_REMOVED"
            << "The card or token was removed (CKR_SESSION_HANDLE_INVALID).";
        QTest::newRow("mechanism not offered")
            << qulonglong(CKR_MECHANISM_INVALID) << "ERR_VANTRO_CARD_UNSUPPORTED"
            << "C_Login failed with CKR_MECHANISM_INVALID.";
        QTest::newRow("unlisted") << qulonglong(0x1234) << "ERR_VANTRO_PKCS11_FAILED"
                                  << "C_Login failed with CKR 0x1234.";
    }
    void failureCodes()
    {
        QFETCH(qulonglong, rv);
        QFETCH(QString, code);
        QFETCH(QString, message);
        try {
            check(ck_rv_t(rv), "C_Login");
            QFAIL("no failure");
        } catch (const CodedError& error) {
            QCOMPARE(error.code(), code);
            QCOMPARE(error.message(), message);
        }
    }

    void pinDialog_data()
    {
        QTest::addColumn<bool>("finalTry");
        QTest::addColumn<bool>("countLow");
        QTest::addColumn<QString>("tries");
        QTest::newRow("no word on tries") << false << false << "";
        QTest::newRow("few tries left") << false << true << "Liko nedaug bandymų.";
        QTest::newRow("last try") << true << true
                                  << "Liko paskutinis bandymas: suklydus PIN bus užblokuotas.";
    }
    void pinDialog()
    {
        QFETCH(bool, finalTry);
        QFETCH(bool, countLow);
        QFETCH(QString, tries);
        PinRequest request;
        request.tokenLabel = "Jono kortelė";
        request.finalTry = finalTry;
        request.countLow = countLow;
        request.minLength = 4;
        request.maxLength = 8;
        PinDialog dialog(request);
        dialog.show();
        QCOMPARE(dialog.findChild<QLabel*>("prompt")->text(),
                 "Įveskite pasirašymo PIN kodą priemonei „Jono kortelė“.");
        QCOMPARE(dialog.findChild<QLabel*>("tries")->isVisible(), !tries.isEmpty());
        QCOMPARE(dialog.findChild<QLabel*>("tries")->text(), tries);
        auto* field = dialog.findChild<QLineEdit*>("pin");
        auto* confirm = dialog.findChild<QPushButton*>("confirm");
        QCOMPARE(field->echoMode(), QLineEdit::Password);
        QTest::keyClicks(field, "123");
        QVERIFY(!confirm->isEnabled());
        QTest::keyClicks(field, "4567890");
        QCOMPARE(dialog.pin(), "12345678"); // the token's longest PIN, no more
        QVERIFY(confirm->isEnabled());
        dialog.clearPin();
        QVERIFY(dialog.pin().isEmpty());
    }

    void promptOutcomes_data()
    {
        QTest::addColumn<QString>("action");
        QTest::addColumn<QString>("outcome");
        QTest::newRow("confirmed") << "confirm"
                                   << "PIN 2468";
        QTest::newRow("cancelled") << "cancel"
                                   << "cancelled";
        QTest::newRow("nobody answers") << ""
                                        << "ERR_VANTRO_TIMEOUT";
    }
    void promptOutcomes()
    {
        QFETCH(QString, action);
        QFETCH(QString, outcome);
        DialogPinPrompt prompt(action.isEmpty() ? 200 : 30000);
        QTimer::singleShot(50, this, [action] {
            auto* dialog = qobject_cast<PinDialog*>(QApplication::activeModalWidget());
            if (!dialog || action.isEmpty())
                return;
            QTest::keyClicks(dialog->findChild<QLineEdit*>("pin"), "2468");
            dialog->findChild<QPushButton*>(action)->click();
        });
        QString got;
        try {
            const std::optional<QByteArray> pin = prompt.ask(PinRequest());
            got = pin ? "PIN " + QString::fromUtf8(*pin) : "cancelled";
        } catch (const CodedError& error) {
            got = error.code();
        }
        QCOMPARE(got, outcome);
    }
};

QTEST_MAIN(HostRulesTest)
#include "tst_host_rules.moc"
