// The card host exchange over real pipes with a real child process: framing, handshake,
// timeouts, the host's own errors, and that no host process outlives its request.
#include "app/Errors.h"
#include "usb/FakeHost.h"
#include "usb/NativeHostClient.h"
#include "vantro_config.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QTest>

using namespace vantro;
using namespace vantro::test;

namespace {

const QString kTimeoutText = QStringLiteral("Native host did not return a frame before timeout.");

struct Outcome
{
    QJsonObject answer;
    QString code;
    QString message;
};

Outcome runExchange(const QString& host, const QVariantMap& arguments, int timeoutMs)
{
    try {
        return {runNativeHostCommand(host, QStringLiteral("sign"), arguments, timeoutMs), {}, {}};
    } catch (const CodedError& failure) {
        return {{}, failure.code(), failure.message()};
    }
}

QByteArray script(const QJsonObject& steps)
{
    return QJsonDocument(steps).toJson(QJsonDocument::Compact);
}

// A host that answers the request with `body`, verbatim.
QByteArray answering(const char* body)
{
    return script({{"answer", QString::fromUtf8(body)}});
}

} // namespace

class TestNativeHost : public QObject
{
    Q_OBJECT

    FakeHostDir m_dir;

private Q_SLOTS:
    void init() { qunsetenv("VANTRO_SIGN_HELPER_ORIGIN"); }

    void exchange_data()
    {
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<int>("timeoutMs");
        QTest::addColumn<QString>("code"); // empty: the exchange succeeds
        QTest::addColumn<QString>("message");
        const QString timedOut = QStringLiteral("VANTRO_USB_HELPER_TIMEOUT_sign");
        const QString handshake = QStringLiteral("VANTRO_USB_HELPER_INVALID_HANDSHAKE");
        const QString badResponse = QStringLiteral("VANTRO_USB_HELPER_BAD_RESPONSE");
        const QString tooLong = QStringLiteral("Bad native-message frame length: 67108865");
        const int normal = 5000;
        QTest::newRow("handshake not JSON, answer echoed")
            << QByteArray("{}") << normal << QString() << QString();
        QTest::newRow("answer in five pieces")
            << script({{"pieces", 5}}) << normal << QString() << QString();
        QTest::newRow("answer glued to the handshake")
            << script({{"gluedAnswer", true}}) << normal << QString() << QString();
        QTest::newRow("answer of exactly 64 MiB")
            << script({{"answerBytes", 67108864}}) << 60000 << QString() << QString();
        QTest::newRow("answer length 64 MiB + 1")
            << script({{"answerLength", 67108865}}) << normal << timedOut << tooLong;
        QTest::newRow("handshake length 64 MiB + 1")
            << script({{"handshake", "oversized"}}) << normal << handshake << tooLong;
        QTest::newRow("zero-length handshake")
            << script({{"handshake", "empty"}}) << normal << handshake << QString();
        QTest::newRow("no handshake within 10 s")
            << script({{"handshake", "none"}}) << normal << handshake << kTimeoutText;
        QTest::newRow("stderr and exit before the handshake")
            << script({{"stderrBeforeHandshake", "  reader unplugged\n"}}) << normal << handshake
            << "reader unplugged";
        QTest::newRow("stderr and exit after the request")
            << script({{"stderrAfterRequest", "token removed\n"}}) << normal << timedOut
            << "token removed";
        QTest::newRow("never answers")
            << script({{"hang", true}}) << 400 << timedOut << kTimeoutText;
        QTest::newRow("answer later than the timeout")
            << script({{"delayMs", 1500}}) << 300 << timedOut << kTimeoutText;
        QTest::newRow("host error passes through")
            << answering("{\"error\":{\"code\":\"PIN_BLOCKED\",\"message\":\"PIN blocked\"}}")
            << normal << "PIN_BLOCKED"
            << "PIN blocked";
        QTest::newRow("empty error object")
            << answering("{\"error\":{}}") << normal << "VANTRO_USB_HELPER_ERROR"
            << "Vantro Sign native host returned an error.";
        QTest::newRow("error that is not an object")
            << answering("{\"error\":\"broken\"}") << normal << "VANTRO_USB_HELPER_ERROR"
            << "Vantro Sign native host returned an error.";
        QTest::newRow("array body") << answering("[1,2]") << normal << badResponse << "*";
        QTest::newRow("null body") << answering("null") << normal << badResponse << "*";
        QTest::newRow("not JSON") << answering("{oops") << normal << badResponse << "*";
    }
    void exchange()
    {
        QFETCH(QByteArray, script);
        QFETCH(int, timeoutMs);
        QFETCH(QString, code);
        QFETCH(QString, message);
        const QString host = m_dir.install("host", script);
        const Outcome outcome = runExchange(host, {{"documentId", "d-1"}}, timeoutMs);
        QCOMPARE(outcome.code, code);
        if (message != "*")
            QCOMPARE(outcome.message, message);
        else
            QVERIFY(!outcome.message.isEmpty());
        if (code.isEmpty()) {
            // The fake echoes the request, or answers {"glued":true} or {"pad":"ppp…"}.
            const QJsonObject answer = outcome.answer;
            QCOMPARE(answer.size(), 1);
            if (answer.contains("pad"))
                QCOMPARE(answer.value("pad").toString().size(), 67108864 - 10);
            else if (!answer.contains("glued"))
                QCOMPARE(answer.value("echo").toObject().value("command"), "sign");
        }
        QVERIFY2(m_dir.processGone("host"), "the host process outlived its request");
    }

    void requestCarriesTheHelperOrigin_data()
    {
        QTest::addColumn<QByteArray>("environment");
        QTest::addColumn<QString>("origin");
        QTest::newRow("unset: the portal") << QByteArray() << QString(config::kPortalOrigin);
        QTest::newRow("blank: the portal") << QByteArray("   ") << QString(config::kPortalOrigin);
        QTest::newRow("set, trimmed")
            << QByteArray(" https://portal.test ") << "https://portal.test";
    }
    void requestCarriesTheHelperOrigin()
    {
        QFETCH(QByteArray, environment);
        QFETCH(QString, origin);
        if (!environment.isNull())
            qputenv("VANTRO_SIGN_HELPER_ORIGIN", environment);
        const QString host = m_dir.install("host");
        const QVariantMap arguments{{"origin", "https://caller.example"},
                                    {"hashes", QVariantList{"aa", "bb"}}};
        const Outcome outcome = runExchange(host, arguments, 5000);
        QCOMPARE(outcome.code, QString());
        const QJsonObject expected{
            {"command", "sign"},
            {"arguments", QJsonObject{{"hashes", QJsonArray{"aa", "bb"}}, {"origin", origin}}}};
        QCOMPARE(m_dir.request("host"), expected);
        QCOMPARE(outcome.answer.value("echo").toObject(), expected);
    }

    void missingProgramCannotStart()
    {
        const Outcome outcome = runExchange(m_dir.file("absent"), {}, 1000);
        QCOMPARE(outcome.code, "VANTRO_USB_HELPER_UNAVAILABLE");
        QVERIFY(!outcome.message.isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestNativeHost)
#include "tst_native_host.moc"
