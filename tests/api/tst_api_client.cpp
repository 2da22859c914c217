// The service client over loopback: what each reply status and body turns into, the headers and
// the credential fence, redirects, timeouts and cancellation, the multipart upload as the server
// saw it, downloads and the heartbeat.
#include "api/Heartbeat.h"
#include "api/ReplyText.h"
#include "api/SignApiClient.h"
#include "app/AppState.h"
#include "app/FileHash.h"
#include "support/ServiceStandIn.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QNetworkReply>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

using namespace vantro;
using namespace vantro::testing;

namespace {

const QString kProbe = QStringLiteral("/sign/api/v1/probe");
const QByteArray kUserAgent = "VantroSignNext/0.2.5";

// The error text a call threw, or "" when it returned.
template <typename Call> QString thrown(Call&& call)
{
    try {
        call();
    } catch (const std::exception& error) {
        return QString::fromUtf8(error.what());
    }
    return {};
}

QByteArray compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

} // namespace

class ApiClientTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_home;
    std::unique_ptr<AppState> m_state;
    std::unique_ptr<SignApiClient> m_api;
    ServiceStandIn m_service;

    void activate() { QVERIFY(m_state->setDeviceIdentity("dev-1", "s3cret", "ws-1")); }
    QString writeFile(const QString& name, const QByteArray& content)
    {
        QFile file(m_home.filePath(name));
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
            qFatal("cannot write %s", qPrintable(file.fileName()));
        return file.fileName();
    }
    QJsonObject upload(const QString& path, const QJsonObject& intent = {})
    {
        return m_api->uploadFile(path, "Sutartis ą.pdf", "ab12", intent, 5000);
    }

private Q_SLOTS:
    void initTestCase()
    {
        qunsetenv("DBUS_SESSION_BUS_ADDRESS"); // no keyring: the secret takes the plain form
        QVERIFY(m_home.isValid());
    }

    void init()
    {
        QFile::remove(m_home.filePath("device.json"));
        m_state = std::make_unique<AppState>(m_home.filePath("device.json"));
        m_api = std::make_unique<SignApiClient>(m_state.get());
        m_service = ServiceStandIn();
        QVERIFY(m_service.listen());
        m_api->setBaseUrl(m_service.origin());
    }

    void jsonReplies_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("expected"); // the returned object as JSON, or the error text
        const QByteArray html = "<!DOCTYPE html>\n<html>\n  <head><title>Not   Found</title></head>"
                                "\n<body>" +
                                QByteArray(300, 'x') + "</body></html>";
        QTest::newRow("204, empty body") << 204 << QByteArray() << "{}";
        QTest::newRow("200, blanks only") << 200 << QByteArray(" \n ") << "{}";
        QTest::newRow("500, empty body")
            << 500 << QByteArray()
            << "VANTRO_SIGN_API_FAILED_500: backend returned an empty response";
        QTest::newRow("200, no ok member") << 200 << QByteArray(R"({"a":1})") << R"({"a":1})";
        QTest::newRow("200, ok false with code and message")
            << 200 << QByteArray(R"({"ok":false,"error":{"code":"X","message":"Y"}})") << "X: Y";
        QTest::newRow("200, ok false with a code only")
            << 200 << QByteArray(R"({"ok":false,"error":{"code":"X"}})") << "X";
        QTest::newRow("200, ok false with a message only")
            << 200 << QByteArray(R"({"ok":false,"error":{"message":"Y"}})")
            << "VANTRO_SIGN_API_FAILED_200";
        QTest::newRow("409, error object")
            << 409 << QByteArray(R"({"error":{"code":"BUSY","message":"later"}})") << "BUSY: later";
        QTest::newRow("500, error not an object")
            << 500 << QByteArray(R"({"error":"boom"})") << "VANTRO_SIGN_API_FAILED_500";
        QTest::newRow("200, top level an array")
            << 200 << QByteArray("[1, 2]")
            << "VANTRO_SIGN_API_FAILED_200: backend returned non-JSON response: [1, 2]";
        const QString collapsed =
            "<!DOCTYPE html> <html> <head><title>Not Found</title></head> <body>";
        QTest::newRow("404, HTML page")
            << 404 << html
            << "VANTRO_SIGN_API_FAILED_404: backend returned non-JSON response: " + collapsed +
                   QString(180 - collapsed.size(), 'x');
    }
    void jsonReplies()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, expected);
        m_service.script("GET", kProbe, {status, body, "text/html"});
        QJsonObject answer;
        const QString error = thrown([&] { answer = m_api->getJson("/probe", 5000); });
        QCOMPARE(error.isEmpty() ? QString::fromUtf8(compact(answer)) : error, expected);
    }

    void connectionRefusedGivesTheTransportText()
    {
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const quint16 port = closed.serverPort();
        closed.close();
        m_api->setBaseUrl(QStringLiteral("http://127.0.0.1:%1").arg(port));
        const QString error = thrown([&] { m_api->getJson("/probe", 5000); });
        QVERIFY2(error.contains("refused", Qt::CaseInsensitive), qPrintable(error));
        QVERIFY(!error.startsWith("VANTRO_SIGN_"));
    }

    void timeoutAndCancellation()
    {
        RawResponder silent; // never answers
        QVERIFY(silent.listen());
        m_api->setBaseUrl(silent.origin());
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(thrown([&] { m_api->getJson("/probe", 300); }), "VANTRO_SIGN_NETWORK_TIMEOUT");
        QVERIFY(clock.elapsed() >= 250 && clock.elapsed() < 5000); // coarse timers may fire early

        clock.restart();
        const auto cancel = [&] {
            return clock.elapsed() > 200;
        };
        const QString error = thrown([&] {
            m_api->sendAndWait(
                m_api->network().get(m_api->buildRequest(QUrl(silent.origin() + kProbe), false)),
                60000, nullptr, nullptr, nullptr, cancel);
        });
        QCOMPARE(error, "VANTRO_SIGN_NETWORK_CANCELLED");
        QVERIFY(clock.elapsed() < 5000);
        QCOMPARE(silent.requestHeads.size(), 2);

        // The client stays usable after both.
        m_api->setBaseUrl(m_service.origin());
        m_service.scriptJson("GET", kProbe, 200, {{"ok", true}});
        QCOMPARE(m_api->getJson("/probe", 5000).value("ok"), true);
    }

    void truncatedSuccessIsNotAccepted()
    {
        RawResponder liar;
        liar.reply = "HTTP/1.1 200 OK\r\nContent-Type: application/pdf\r\nContent-Length: 1000\r\n"
                     "\r\n%PDF-1.7 cut short";
        QVERIFY(liar.listen());
        m_api->setBaseUrl(liar.origin());
        const QString error =
            thrown([&] { m_api->downloadFile("/sign/app/documents/d1/download/", 5000); });
        QVERIFY2(!error.isEmpty() && !error.startsWith("VANTRO_SIGN_"), qPrintable(error));
    }

    void headers_data()
    {
        QTest::addColumn<bool>("activated");
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QByteArray>("contentType");
        QTest::newRow("not activated, GET") << false << QByteArray("GET") << QByteArray();
        QTest::newRow("not activated, POST")
            << false << QByteArray("POST") << QByteArray("application/json");
        QTest::newRow("activated, GET") << true << QByteArray("GET") << QByteArray();
        QTest::newRow("activated, PATCH")
            << true << QByteArray("PATCH") << QByteArray("application/json");
        QTest::newRow("activated, other verbs go as POST")
            << true << QByteArray("DELETE") << QByteArray("application/json");
    }
    void headers()
    {
        QFETCH(bool, activated);
        QFETCH(QByteArray, method);
        QFETCH(QByteArray, contentType);
        if (activated)
            activate();
        const QByteArray sent = method == "GET" || method == "PATCH" ? method : "POST";
        m_service.scriptJson(sent, kProbe, 200, {});
        m_api->apiCall(method, "probe", {{"n", 1}}, 5000);
        QCOMPARE(m_service.paths(), QStringList{sent + ' ' + kProbe});
        const RecordedRequest& seen = m_service.requests.first();
        QCOMPARE(seen.header("User-Agent"), kUserAgent);
        QCOMPARE(seen.header("Content-Type"), contentType);
        QCOMPARE(seen.hasHeader("Authorization"), activated);
        QCOMPARE(seen.hasHeader("X-Vantro-Sign-Device-Id"), activated);
        if (activated)
            QCOMPARE(seen.header("Authorization") + '|' + seen.header("X-Vantro-Sign-Device-Id"),
                     "Bearer s3cret|dev-1");
        QCOMPARE(seen.body, sent == "GET" ? QByteArray() : QByteArray(R"({"n":1})"));
    }

    void credentialsStayOnTheServicePaths_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<bool>("activated");
        QTest::addColumn<bool>("refused");
        QTest::newRow("activated, another origin")
            << "http://127.0.0.2:1/sign/api/v1/x" << true << true;
        QTest::newRow("activated, outside the service paths") << "/admin/x" << true << true;
        QTest::newRow("activated, app path") << "/sign/app/documents/" << true << false;
        QTest::newRow("not activated, another origin") << "http://127.0.0.2:1/x" << false << false;
    }
    void credentialsStayOnTheServicePaths()
    {
        QFETCH(QString, url);
        QFETCH(bool, activated);
        QFETCH(bool, refused);
        if (activated)
            activate();
        const QUrl target = QUrl(m_service.origin()).resolved(QUrl(url));
        const QString error = thrown([&] { m_api->buildRequest(target, false); });
        QCOMPARE(error, refused ? "VANTRO_SIGN_AUTH_URL_NOT_ALLOWED" : "");
        m_api->setBaseUrl(QString());
        QCOMPARE(thrown([&] { m_api->buildRequest(target, false); }).isEmpty(), !activated);
    }

    void redirectsStayWithinTheOrigin()
    {
        activate();
        ServiceStandIn elsewhere;
        QVERIFY(elsewhere.listen());
        m_service.script("GET", "/sign/api/v1/moved",
                         {302, "", "text/plain", {{"Location", "/sign/api/v1/probe"}}});
        m_service.scriptJson("GET", kProbe, 200, {{"here", true}});
        m_service.script(
            "GET", "/sign/api/v1/away",
            {302, "", "text/plain", {{"Location", (elsewhere.origin() + kProbe).toUtf8()}}});

        QCOMPARE(m_api->getJson("/moved", 5000).value("here"), true);
        QCOMPARE(m_service.requests.last().header("Authorization"), "Bearer s3cret");

        const QString error = thrown([&] { m_api->getJson("/away", 5000); });
        QVERIFY2(!error.isEmpty(), "a cross-origin redirect must not succeed");
        QCOMPARE(elsewhere.requests.size(), 0);
    }

    void uploadFormParts_data()
    {
        QTest::addColumn<QJsonObject>("intent");
        QTest::addColumn<QStringList>("textParts"); // disposition=body of the parts after the file
        QTest::newRow("title and category trimmed")
            << QJsonObject{{"title", "  Sutartis  "}, {"category", " hr "}, {"other", "x"}}
            << QStringList{R"(form-data; name="sha256"=ab12)",
                           R"(form-data; name="title"=Sutartis)",
                           R"(form-data; name="category"=hr)"};
        QTest::newRow("blank values omitted")
            << QJsonObject{{"title", "   "}} << QStringList{R"(form-data; name="sha256"=ab12)"};
    }
    void uploadFormParts()
    {
        QFETCH(QJsonObject, intent);
        QFETCH(QStringList, textParts);
        const QByteArray content = "%PDF-1.7\r\n--not-a-boundary\r\n" + QByteArray(70000, 'z');
        m_service.scriptJson("POST", "/sign/api/v1/documents/uploads", 201,
                             {{"ok", true}, {"document", QJsonObject{{"id", "d1"}}}});
        QCOMPARE(upload(writeFile("a.pdf", content), intent).value("document")["id"], "d1");

        const QList<FormPart> parts = formParts(m_service.requests.value(0));
        QCOMPARE(parts.size(), textParts.size() + 1);
        QCOMPARE(QString::fromUtf8(parts.first().disposition),
                 QString(R"(form-data; name="file"; filename="Sutartis ą.pdf")"));
        QVERIFY(parts.first().body == content);
        QStringList seen;
        for (const FormPart& part : parts.mid(1))
            seen << QString::fromUtf8(part.disposition + '=' + part.body);
        QCOMPARE(seen, textParts);
        QVERIFY(
            m_service.requests.first().header("Content-Type").startsWith("multipart/form-data"));
    }

    void uploadReplies_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("error"); // "" for success
        QTest::newRow("201, ok true")
            << 201 << QByteArray(R"({"ok":true,"document":{"id":"d"}})") << "";
        QTest::newRow("200, no ok member")
            << 200 << QByteArray(R"({"document":{"id":"d"}})") << "VANTRO_SIGN_UPLOAD_FAILED_200";
        QTest::newRow("200, ok true without a document")
            << 200 << QByteArray(R"({"ok":true})") << "VANTRO_SIGN_UPLOAD_FAILED_200";
        QTest::newRow("413, error object")
            << 413 << QByteArray(R"({"ok":false,"error":{"code":"TOO_LARGE","message":"50 MiB"}})")
            << "TOO_LARGE: 50 MiB";
        QTest::newRow("200, empty body")
            << 200 << QByteArray()
            << "VANTRO_SIGN_UPLOAD_FAILED_200: backend returned non-JSON response: ";
        QTest::newRow("502, proxy page") << 502 << QByteArray("<h1>Bad\n\nGateway</h1>")
                                         << "VANTRO_SIGN_UPLOAD_FAILED_502: backend returned "
                                            "non-JSON response: <h1>Bad Gateway</h1>";
    }
    void uploadReplies()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, error);
        m_service.script("POST", "/sign/api/v1/documents/uploads", {status, body});
        QCOMPARE(thrown([&] { upload(writeFile("b.pdf", "%PDF")); }), error);
    }

    void uploadOfAnUnreadableFileSendsNothing()
    {
        const QString error = thrown([&] { upload(m_home.filePath("missing.pdf")); });
        QVERIFY2(error.startsWith("VANTRO_SIGN_UPLOAD_FILE_READ_FAILED: "), qPrintable(error));
        QCOMPARE(m_service.requests.size(), 0);
    }

    void contentDisposition_data()
    {
        QTest::addColumn<QString>("header");
        QTest::addColumn<QString>("name");
        QTest::newRow("empty") << ""
                               << "";
        QTest::newRow("no file name") << "attachment"
                                      << "";
        QTest::newRow("plain, quoted") << R"(attachment; filename="a b.pdf")"
                                       << "a b.pdf";
        QTest::newRow("plain, bare") << "attachment; filename=a.pdf; size=3"
                                     << "a.pdf";
        QTest::newRow("extended wins over plain")
            << R"(attachment; filename="a.pdf"; filename*=UTF-8''%C4%85.pdf)"
            << "ą.pdf";
        QTest::newRow("extended, any case, quotes dropped")
            << R"(attachment; FILENAME*=utf-8''"sutartis%20%C5%A1.pdf")"
            << "sutartis š.pdf";
        QTest::newRow("plain is not percent-decoded") << "attachment; filename=a%20b.pdf"
                                                      << "a%20b.pdf";
        QTest::newRow("path climbing") << R"(attachment; filename="..\..\evil.exe")"
                                       << "evil.exe";
        QTest::newRow("encoded path climbing")
            << "attachment; filename*=UTF-8''..%2F..%2Fetc%2Fpasswd"
            << "passwd";
        QTest::newRow("only dots") << R"(attachment; filename="...")"
                                   << "vantro-sign-document";
        QTest::newRow("reserved characters") << "attachment; filename*=UTF-8''a%3Cb%3E%7C%2A%01.pdf"
                                             << "a_b____.pdf"; // <>|* and ^A
    }
    void contentDisposition()
    {
        QFETCH(QString, header);
        QFETCH(QString, name);
        QCOMPARE(replytext::fileNameFromContentDisposition(header), name);
    }

    void sanitizeFileName_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("clean");
        QTest::newRow("blank") << "  "
                               << "vantro-sign-document";
        QTest::newRow("slashes only") << "/\\/"
                                      << "vantro-sign-document";
        QTest::newRow("query and fragment") << "report.pdf?sig=1#p2"
                                            << "report.pdf";
        QTest::newRow("trailing dots and blanks") << "name. . ."
                                                  << "name";
        QTest::newRow("colon") << "C:stream.txt"
                               << "C_stream.txt";
        QTest::newRow("300 characters") << QString(300, 'a') << QString(180, 'a');
    }
    void sanitizeFileName()
    {
        QFETCH(QString, name);
        QFETCH(QString, clean);
        QCOMPARE(replytext::sanitizeFileName(name), clean);
    }

    void downloads_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("outcome"); // "name|body" or the error text
        QTest::newRow("200 with a named file")
            << 200 << QByteArray("%PDF-1") << "signed ą.pdf|%PDF-1";
        QTest::newRow("200, empty body")
            << 200 << QByteArray() << "VANTRO_SIGN_DOWNLOAD_EMPTY_FILE";
        QTest::newRow("404") << 404 << QByteArray(R"({"ok":false})")
                             << "VANTRO_SIGN_DOWNLOAD_FAILED_404";
        QTest::newRow("410, empty") << 410 << QByteArray() << "VANTRO_SIGN_DOWNLOAD_FAILED_410";
    }
    void downloads()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, outcome);
        const QString path = "/sign/app/documents/d1/versions/v1/download/";
        m_service.script(
            "GET", path,
            {status,
             body,
             "application/pdf",
             {{"Content-Disposition", "attachment; filename*=UTF-8''signed%20%C4%85.pdf"}}});
        QString name;
        QByteArray bytes;
        const QString error = thrown([&] { bytes = m_api->downloadFile(path, 5000, &name); });
        QCOMPARE(error.isEmpty() ? name + '|' + QString::fromUtf8(bytes) : error, outcome);
    }

    void heartbeatBody_data()
    {
        QTest::addColumn<bool>("helper");
        QTest::addColumn<QString>("health");
        QTest::newRow("helper available") << true << "available";
        QTest::newRow("helper missing") << false << "missing";
    }
    void heartbeatBody()
    {
        QFETCH(bool, helper);
        QFETCH(QString, health);
        const OrderedObject status{{"helperAvailable", helper}, {"pendingMirrorCount", 3}};
        const QVariantMap body = vantro::heartbeatBody("C:\\Docs", status).toMap();
        QCOMPARE(
            vantro::heartbeatBody("C:\\Docs", status).keys(),
            QStringList({"app_version", "platform", "helper_health", "local_root_hash",
                         "pending_mirror_count", "mirror_queue_failed_count", "capabilities"}));
        QCOMPARE(body.value("helper_health").toString(), health);
        QCOMPARE(body.value("local_root_hash").toString(), sha256Hex("c:\\docs"));
        QCOMPARE(vantro::heartbeatBody("c:\\docs", status).toMap().value("local_root_hash"),
                 body.value("local_root_hash"));
        QCOMPARE(body.value("pending_mirror_count"), 3);
        QCOMPARE(body.value("mirror_queue_failed_count"), 0);
        const OrderedObject capabilities = body.value("capabilities").value<OrderedObject>();
        QCOMPARE(capabilities.size(), 21);
        QCOMPARE(capabilities.keys().first() + ',' + capabilities.keys().at(1) + ',' +
                     capabilities.keys().last(),
                 "platform,qt_bridge,usb_bridge");
        QCOMPARE(capabilities.value("platform"), "desktop");
        for (const QString& key : capabilities.keys().mid(1, 19))
            QVERIFY2(capabilities.value(key) == true, qPrintable(key));
        QCOMPARE(capabilities.value("usb_bridge"), helper);
    }

    void heartbeatGoesOnlyFromAnActivatedDevice()
    {
        const OrderedObject status{{"helperAvailable", false}};
        m_api->sendHeartbeat(status);
        activate();
        m_service.scriptJson("POST", "/sign/api/v1/heartbeat", 200, {});
        m_api->sendHeartbeat(status);
        QTRY_COMPARE(m_service.requests.size(), 1);
        const RecordedRequest& seen = m_service.requests.first();
        QCOMPARE(seen.path, "/sign/api/v1/heartbeat");
        QCOMPARE(seen.header("Authorization"), "Bearer s3cret"); // not the inactive device's
        QCOMPARE(seen.header("Content-Type"), "application/json");
        QCOMPARE(seen.body, vantro::heartbeatBody(m_state->localRoot(), status).toJson());
    }
};

QTEST_GUILESS_MAIN(ApiClientTest)
#include "tst_api_client.moc"
