// The card host program against SoftHSM2 tokens, reached the way the application reaches it
// (framed exchange over real pipes), with every signature checked by OpenSSL.
#include "nativehost/SoftHsmToken.h"

#include "app/Errors.h"
#include "usb/NativeFrame.h"
#include "usb/NativeHostClient.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QtTest>

using namespace vantro;
using namespace vantro::testing;

namespace {

const QByteArray kPin = "918273";
const QString kOrigin = QStringLiteral("https://sign.test");

QByteArray hashOf(const QByteArray& data, const QString& function)
{
    const auto algorithm = function == "SHA-384"   ? QCryptographicHash::Sha384
                           : function == "SHA-512" ? QCryptographicHash::Sha512
                                                   : QCryptographicHash::Sha256;
    return QCryptographicHash::hash(data, algorithm);
}

const char* opensslName(const QString& function)
{
    return function == "SHA-384" ? "SHA384" : function == "SHA-512" ? "SHA512" : "SHA256";
}

} // namespace

class CardHostTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<SoftHsmToken> m_ec;
    std::unique_ptr<SoftHsmToken> m_rsa;
    std::unique_ptr<SoftHsmToken> m_empty;

    SoftHsmToken& token(const QString& keyType) { return keyType == "EC" ? *m_ec : *m_rsa; }
    static QJsonObject run(const QString& command, const QVariantMap& arguments = {})
    {
        return runNativeHostCommand(VANTRO_NATIVE_HOST, command, arguments, 60000);
    }
    // The refusal's code, or "answered" when the host answered.
    static QString refusal(const QString& command, const QVariantMap& arguments)
    {
        try {
            run(command, arguments);
            return "answered";
        } catch (const CodedError& error) {
            if (error.message().contains(QString::fromLatin1(kPin)))
                return "PIN in the message";
            return error.code();
        }
    }
    QVariantMap signArguments(const QString& keyType, const QString& function,
                              const QByteArray& data = "document")
    {
        return {{"hash", QString(hashOf(data, function).toBase64())},
                {"hashFunction", function},
                {"certificate", QString(token(keyType).certificate("sign").toBase64())}};
    }

private Q_SLOTS:
    void initTestCase()
    {
        qputenv("VANTRO_SIGN_PKCS11_MODULE", kSoftHsmModule.toUtf8());
        qputenv("VANTRO_SIGN_HELPER_ORIGIN", kOrigin.toUtf8());
        m_ec = std::make_unique<SoftHsmToken>("Test EC", "EC", kPin);
        m_rsa = std::make_unique<SoftHsmToken>("Test RSA", "RSA", kPin);
        m_empty = std::make_unique<SoftHsmToken>("Empty", "EC", kPin, false);
        for (const SoftHsmToken* made : {m_ec.get(), m_rsa.get(), m_empty.get()})
            QVERIFY2(made->error().isEmpty(), qPrintable(made->error()));
    }

    void init()
    {
        qputenv("VANTRO_SIGN_PKCS11_MODULE", kSoftHsmModule.toUtf8());
        qputenv("VANTRO_SIGN_TEST_PIN", kPin);
        qunsetenv("VANTRO_SHIM_FAULT");
    }

    void signatureVerifies_data()
    {
        QTest::addColumn<QString>("keyType");
        QTest::addColumn<QString>("function");
        QTest::addColumn<QString>("padding");
        QTest::newRow("EC P-256, SHA-256") << "EC"
                                           << "SHA-256"
                                           << "NONE";
        QTest::newRow("EC P-256, SHA-384") << "EC"
                                           << "SHA-384"
                                           << "NONE";
        QTest::newRow("RSA-2048 PKCS#1 v1.5, SHA-256") << "RSA"
                                                       << "SHA-256"
                                                       << "PKCS1.5";
        QTest::newRow("RSA-2048 PKCS#1 v1.5, SHA-512") << "RSA"
                                                       << "SHA-512"
                                                       << "PKCS1.5";
        QTest::newRow("RSA-2048 PSS, SHA-256") << "RSA"
                                               << "SHA-256"
                                               << "PSS";
    }
    void signatureVerifies()
    {
        QFETCH(QString, keyType);
        QFETCH(QString, function);
        QFETCH(QString, padding);
        token(keyType).use();
        const QJsonObject certificate = run("get-signing-certificate");
        const QByteArray der =
            QByteArray::fromBase64(certificate["certificate"].toString().toLatin1());
        QCOMPARE(der, token(keyType).certificate("sign"));
        const QJsonObject algorithm{{"cryptoAlgorithm", keyType == "EC" ? "ECC" : "RSA"},
                                    {"hashFunction", function},
                                    {"paddingScheme", padding}};
        QVERIFY(certificate["supportedSignatureAlgorithms"].toArray().contains(algorithm));

        QVariantMap arguments = signArguments(keyType, function);
        if (padding == "PSS")
            arguments["paddingScheme"] = "PSS";
        const QJsonObject signed_ = run("sign", arguments);
        QCOMPARE(signed_["signatureAlgorithm"].toObject(), algorithm);
        const QByteArray signature =
            QByteArray::fromBase64(signed_["signature"].toString().toLatin1());
        QVERIFY(verifySignature(der, hashOf("document", function), signature, opensslName(function),
                                padding == "PSS"));
        QVERIFY(!verifySignature(der, hashOf("other", function), signature, opensslName(function),
                                 padding == "PSS"));
    }

    void batchSignsEachHashInOrder_data()
    {
        QTest::addColumn<QString>("keyType");
        QTest::newRow("EC") << "EC";
        QTest::newRow("RSA") << "RSA";
    }
    void batchSignsEachHashInOrder()
    {
        QFETCH(QString, keyType);
        token(keyType).use();
        QVariantMap arguments = signArguments(keyType, "SHA-256");
        const QList<QByteArray> documents{"first", "second", "third"};
        QVariantList hashes;
        for (const QByteArray& document : documents)
            hashes << QString(hashOf(document, "SHA-256").toBase64());
        arguments.remove("hash");
        arguments["hashes"] = hashes;
        const QJsonArray signatures = run("sign-batch", arguments)["signatures"].toArray();
        QCOMPARE(signatures.size(), documents.size());
        for (int i = 0; i < documents.size(); ++i)
            QVERIFY2(verifySignature(
                         token(keyType).certificate("sign"), hashOf(documents[i], "SHA-256"),
                         QByteArray::fromBase64(signatures[i].toString().toLatin1()), "SHA256"),
                     qPrintable(QString::number(i)));
    }

    // The web-eID token: the authentication key signs hash(hash(origin) + hash(nonce)).
    void authenticationToken_data()
    {
        QTest::addColumn<QString>("keyType");
        QTest::addColumn<QString>("algorithm");
        QTest::newRow("EC P-256") << "EC"
                                  << "ES256";
        QTest::newRow("RSA-2048") << "RSA"
                                  << "RS256";
    }
    void authenticationToken()
    {
        QFETCH(QString, keyType);
        QFETCH(QString, algorithm);
        token(keyType).use();
        const QString nonce = QString(QByteArray(32, '\x5a').toBase64());
        const QJsonObject answer = run("authenticate", {{"challengeNonce", nonce}});
        const QByteArray der = token(keyType).certificate("auth");
        QCOMPARE(QByteArray::fromBase64(answer["unverifiedCertificate"].toString().toLatin1()),
                 der);
        QCOMPARE(answer["algorithm"].toString(), algorithm);
        QCOMPARE(answer["format"].toString(), "web-eid:1.0");
        QVERIFY(!answer["appVersion"].toString().isEmpty());
        const QByteArray signedHash = hashOf(
            hashOf(kOrigin.toUtf8(), "SHA-256") + hashOf(nonce.toUtf8(), "SHA-256"), "SHA-256");
        QVERIFY(verifySignature(der, signedHash,
                                QByteArray::fromBase64(answer["signature"].toString().toLatin1()),
                                "SHA256"));
    }

    void refusals_data()
    {
        QTest::addColumn<QString>("setup"); // token, or a fault of the setting
        QTest::addColumn<QString>("command");
        QTest::addColumn<QVariantMap>("arguments"); // "@sign" stands for valid sign arguments
        QTest::addColumn<QString>("code");
        const QVariantMap sign{{"@sign", true}};
        QTest::newRow("wrong PIN") << "wrong PIN"
                                   << "sign" << sign << "ERR_VANTRO_PIN_INCORRECT";
        QTest::newRow("PIN entry cancelled") << "cancel"
                                             << "sign" << sign << "ERR_WEBEID_USER_CANCELLED";
        QTest::newRow("locked PIN") << "pin-locked"
                                    << "sign" << sign << "ERR_VANTRO_PIN_LOCKED";
        QTest::newRow("token removed while signing") << "removed-at-sign"
                                                     << "sign" << sign << "PKCS11_TOKEN_REMOVED";
        QTest::newRow("empty token, certificate")
            << "empty"
            << "get-signing-certificate" << QVariantMap() << "ERR_VANTRO_NO_SIGNING_CERTIFICATE";
        QTest::newRow("empty token, authentication")
            << "empty"
            << "authenticate" << QVariantMap{{"challengeNonce", QString(44, 'n')}}
            << "ERR_VANTRO_NO_AUTHENTICATION_CERTIFICATE";
        QTest::newRow("no token") << "no token"
                                  << "get-signing-certificate" << QVariantMap()
                                  << "PKCS11_TOKEN_NOT_PRESENT";
        QTest::newRow("no module")
            << "no module"
            << "get-signing-certificate" << QVariantMap() << "ERR_VANTRO_MIDDLEWARE_MISSING";
        QTest::newRow("unknown hash function")
            << "EC"
            << "sign" << QVariantMap{{"@sign", true}, {"hashFunction", "MD5"}}
            << "ERR_VANTRO_HASH_FUNCTION_UNSUPPORTED";
        QTest::newRow("hash of the wrong length")
            << "EC"
            << "sign" << QVariantMap{{"@sign", true}, {"hash", "AAAA"}}
            << "ERR_VANTRO_INVALID_ARGUMENT";
        QTest::newRow("sign without arguments")
            << "EC"
            << "sign" << QVariantMap() << "ERR_VANTRO_INVALID_ARGUMENT";
        QTest::newRow("batch without hashes")
            << "EC"
            << "sign-batch" << QVariantMap() << "ERR_VANTRO_INVALID_ARGUMENT";
        QTest::newRow("short challenge nonce")
            << "EC"
            << "authenticate" << QVariantMap{{"challengeNonce", "abc"}}
            << "ERR_VANTRO_INVALID_ARGUMENT";
        QTest::newRow("PSS with an EC key")
            << "EC"
            << "sign" << QVariantMap{{"@sign", true}, {"paddingScheme", "PSS"}}
            << "ERR_VANTRO_INVALID_ARGUMENT";
        QTest::newRow("unknown command")
            << "EC"
            << "decrypt" << QVariantMap() << "ERR_VANTRO_UNKNOWN_COMMAND";
    }
    void refusals()
    {
        QFETCH(QString, setup);
        QFETCH(QString, command);
        QFETCH(QVariantMap, arguments);
        QFETCH(QString, code);
        m_ec->use();
        if (setup == "wrong PIN")
            qputenv("VANTRO_SIGN_TEST_PIN", "000000");
        if (setup == "cancel")
            qputenv("VANTRO_SIGN_TEST_PIN", "");
        if (setup == "pin-locked" || setup == "removed-at-sign") {
            qputenv("VANTRO_SIGN_PKCS11_MODULE", VANTRO_PKCS11_SHIM);
            qputenv("VANTRO_SHIM_FAULT", setup.toUtf8());
        }
        if (setup == "empty")
            m_empty->use();
        QTemporaryDir noTokens;
        if (setup == "no token") {
            QFile conf(noTokens.filePath("softhsm2.conf"));
            QVERIFY(conf.open(QIODevice::WriteOnly));
            conf.write("directories.tokendir = " + noTokens.path().toUtf8() + "\n");
            conf.close();
            qputenv("SOFTHSM2_CONF", conf.fileName().toUtf8());
        }
        if (setup == "no module")
            qputenv("VANTRO_SIGN_PKCS11_MODULE", "/nonexistent/pkcs11.so");
        if (arguments.take("@sign").toBool()) {
            const QVariantMap valid = signArguments("EC", "SHA-256");
            for (auto it = valid.begin(); it != valid.end(); ++it)
                if (!arguments.contains(it.key()))
                    arguments.insert(it.key(), it.value());
        }
        QCOMPARE(refusal(command, arguments), code);
    }

    // A request the host cannot read is answered, the host exits by itself, and the PIN of a
    // failed login appears nowhere it writes.
    void hostAnswersAndExits_data()
    {
        QTest::addColumn<QByteArray>("request");
        QTest::addColumn<QString>("code");
        QTest::newRow("not JSON") << QByteArray("{sign") << "ERR_VANTRO_INVALID_REQUEST";
        QTest::newRow("JSON but not a command")
            << QByteArray("[1,2]") << "ERR_VANTRO_INVALID_REQUEST";
        const QVariantMap arguments = signArguments("EC", "SHA-256");
        QTest::newRow("wrong PIN")
            << QJsonDocument(nativeHostRequest("sign", arguments)).toJson(QJsonDocument::Compact)
            << "ERR_VANTRO_PIN_INCORRECT";
    }
    void hostAnswersAndExits()
    {
        QFETCH(QByteArray, request);
        QFETCH(QString, code);
        m_ec->use();
        qputenv("VANTRO_SIGN_TEST_PIN", kPin + "0");
        QProcess host;
        host.start(VANTRO_NATIVE_HOST, QStringList());
        QVERIFY(host.waitForStarted());
        QByteArray buffer;
        QString error;
        QVERIFY(!readNativeFrame(host, buffer, 10000, &error).isEmpty());
        host.write(encodeNativeFrame(request));
        const QByteArray answer = readNativeFrame(host, buffer, 30000, &error);
        QVERIFY(host.waitForFinished(10000));
        QCOMPARE(host.exitCode(), 1);
        QCOMPARE(QJsonDocument::fromJson(answer)["error"]["code"].toString(), code);
        const QByteArray written = answer + host.readAllStandardError();
        QVERIFY(!written.contains(kPin));
    }

    // The diagnostics program lists the module, the token and its certificates.
    void diagnosticsListTheToken()
    {
        m_ec->use();
        QProcess cli;
        cli.start(VANTRO_MW_CLI, {"--diagnose"});
        QVERIFY(cli.waitForFinished(30000));
        const QJsonObject report = QJsonDocument::fromJson(cli.readAllStandardOutput()).object();
        const QJsonObject module = report["modules"][0].toObject();
        QCOMPARE(module["path"].toString(), kSoftHsmModule);
        QVERIFY(module["loaded"].toBool());
        QJsonObject token;
        for (const QJsonValue& slot : module["slots"].toArray())
            if (slot["token"]["label"] == "Test EC")
                token = slot["token"].toObject();
        const QJsonArray certificates = token["certificates"].toArray();
        QCOMPARE(certificates.size(), 2);
        QStringList usages;
        for (const QJsonValue& certificate : certificates)
            usages << certificate["subject"].toString() + ": " +
                          certificate["keyUsage"].toVariant().toStringList().join(',') + "/" +
                          certificate["extendedKeyUsage"].toVariant().toStringList().join(',');
        usages.sort();
        QCOMPARE(usages, QStringList({"CN=Test auth: digitalSignature/clientAuth",
                                      "CN=Test sign: nonRepudiation/"}));
        QVERIFY(report["pcsc"].toObject().contains("readers"));
    }
};

QTEST_GUILESS_MAIN(CardHostTest)
#include "tst_card_host.moc"
