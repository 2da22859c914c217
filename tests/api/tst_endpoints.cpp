// URL rules of the service client: base choice, credentials, trusted pages and downloads.
#include "api/Endpoints.h"
#include "app/Errors.h"

#include <QtTest>

using namespace vantro;
using namespace vantro::endpoints;

namespace {

const QByteArray kUnset = "<unset>";
const QString kProd = QStringLiteral("https://sign.vantro.example");
const QString kPortal = QStringLiteral("https://account.vantro.example");
const QString kStaging = QStringLiteral("https://staging.sign.vantro.example");
const QString kLocal = QStringLiteral("http://localhost:8000");
const QString kLoopback = QStringLiteral("http://127.0.0.1:8000");

void setEnv(const char* name, const QByteArray& value)
{
    if (value == kUnset)
        qunsetenv(name);
    else
        qputenv(name, value);
}

void applyEnv(const QByteArray& baseUrl, const QByteArray& allowLocal)
{
    setEnv("VANTRO_SIGN_BASE_URL", baseUrl);
    setEnv("VANTRO_SIGN_ALLOW_LOCAL_API_BASE", allowLocal);
}

} // namespace

class EndpointsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { applyEnv(kUnset, kUnset); }
    void cleanupTestCase() { applyEnv(kUnset, kUnset); }

    void buildTimeOrigins()
    {
        QCOMPARE(productionOrigin(), kProd);
        QCOMPARE(portalOrigin(), kPortal);
        QCOMPARE(stagingOrigin(), kStaging);
    }

    void allowLocal_data()
    {
        QTest::addColumn<QByteArray>("allow");
        QTest::addColumn<bool>("expected");
        QTest::newRow("unset") << kUnset << false;
        QTest::newRow("empty") << QByteArray("") << false;
        QTest::newRow("1") << QByteArray("1") << true;
        QTest::newRow("true") << QByteArray("true") << true;
        QTest::newRow("TRUE upper case") << QByteArray("TRUE") << true;
        QTest::newRow("yes") << QByteArray("yes") << true;
        QTest::newRow("On with blanks") << QByteArray("  On \t") << true;
        QTest::newRow("0") << QByteArray("0") << false;
        QTest::newRow("off") << QByteArray("off") << false;
        QTest::newRow("y is not yes") << QByteArray("y") << false;
        QTest::newRow("enabled is not a yes word") << QByteArray("enabled") << false;
        QTest::newRow("2 is not 1") << QByteArray("2") << false;
    }
    void allowLocal()
    {
        QFETCH(QByteArray, allow);
        applyEnv(kUnset, allow);
        QTEST(allowLocalApiBase(), "expected");
    }

    void normalize_data()
    {
        QTest::addColumn<QString>("candidate");
        QTest::addColumn<QString>("expected");
        QTest::newRow("everything at once") << "  HTTPS://Example:443/base/sign/api/v1/x/?q=1#f  "
                                            << "https://example/base";
        QTest::newRow("empty") << ""
                               << "";
        QTest::newRow("blanks only") << "   "
                                     << "";
        QTest::newRow("host without scheme") << "sign.vantro.example"
                                             << "";
        QTest::newRow("path only") << "/sign/app/documents/"
                                   << "";
        QTest::newRow("scheme without host") << "mailto:someone@example"
                                             << "";
        QTest::newRow("file url has no host") << "file:///tmp/x"
                                              << "";
        QTest::newRow("invalid port") << "https://example:99999"
                                      << "";
        QTest::newRow("blank inside host") << "http://exa mple"
                                           << "";
        QTest::newRow("origin only") << "https://sign.vantro.example" << kProd;
        QTest::newRow("http default port dropped") << "http://Host:80/"
                                                   << "http://host";
        QTest::newRow("https port 80 kept") << "https://host:80"
                                            << "https://host:80";
        QTest::newRow("http port 443 kept") << "http://host:443"
                                            << "http://host:443";
        QTest::newRow("port 8443 kept") << "https://host:8443/"
                                        << "https://host:8443";
        QTest::newRow("trailing slashes removed") << "https://host/a///"
                                                  << "https://host/a";
        QTest::newRow("api prefix cut at first occurrence")
            << "https://host/p/sign/api/v1/q/sign/api/v1"
            << "https://host/p";
        QTest::newRow("api prefix without slash") << "http://localhost:8000/sign/api/v1" << kLocal;
        QTest::newRow("api prefix is case-sensitive") << "https://host/SIGN/api/v1/"
                                                      << "https://host/SIGN/api/v1";
        QTest::newRow("app path is not cut") << "https://host/sign/app/documents/"
                                             << "https://host/sign/app/documents";
        QTest::newRow("query and fragment dropped") << "https://host/x?a=1#b"
                                                    << "https://host/x";
        QTest::newRow("encoded blank rendered readable") << "https://host/a%20b/"
                                                         << "https://host/a b";
    }
    void normalize()
    {
        QFETCH(QString, candidate);
        QTEST(normalizeBaseUrl(candidate), "expected");
    }

    void origin_data()
    {
        QTest::addColumn<QUrl>("url");
        QTest::addColumn<QString>("expected");
        QTest::newRow("host lower-cased, path ignored")
            << QUrl("https://Sign.Vantro.Example/sign/app/") << kProd;
        QTest::newRow("scheme lower-cased") << QUrl("HTTP://HOST:8000") << "http://host:8000";
        QTest::newRow("explicit 443 is carried")
            << QUrl("https://sign.vantro.example:443/x") << "https://sign.vantro.example:443";
        QTest::newRow("local development") << QUrl("http://localhost:8000/sign/app/") << kLocal;
        QTest::newRow("relative") << QUrl("/sign/app/") << "";
        QTest::newRow("no host") << QUrl("file:///tmp/x") << "";
        QTest::newRow("invalid") << QUrl("http://exa mple") << "";
        QTest::newRow("empty") << QUrl() << "";
    }
    void origin()
    {
        QFETCH(QUrl, url);
        QTEST(originOf(url), "expected");
    }

    void allowedBaseOrigin_data()
    {
        QTest::addColumn<QString>("origin");
        QTest::addColumn<QByteArray>("allow");
        QTest::addColumn<bool>("expected");
        QTest::newRow("production") << kProd << kUnset << true;
        QTest::newRow("staging") << kStaging << kUnset << true;
        QTest::newRow("portal is never an API base") << kPortal << QByteArray("on") << false;
        QTest::newRow("localhost not allowed by default") << kLocal << kUnset << false;
        QTest::newRow("localhost when allowed") << kLocal << QByteArray("on") << true;
        QTest::newRow("loopback when allowed") << kLoopback << QByteArray("1") << true;
        QTest::newRow("loopback when refused") << kLoopback << QByteArray("no") << false;
        QTest::newRow("other local port") << "http://localhost:8001" << QByteArray("on") << false;
        QTest::newRow("https localhost") << "https://localhost:8000" << QByteArray("on") << false;
        QTest::newRow("production with :443") << kProd + ":443" << kUnset << false;
        QTest::newRow("upper-case origin text") << "https://SIGN.vantro.example" << kUnset << false;
        QTest::newRow("empty") << "" << QByteArray("on") << false;
    }
    void allowedBaseOrigin()
    {
        QFETCH(QString, origin);
        QFETCH(QByteArray, allow);
        applyEnv(kUnset, allow);
        QTEST(isAllowedBaseOrigin(origin), "expected");
    }

    void allowedBaseUrl_data()
    {
        QTest::addColumn<QString>("candidate");
        QTest::addColumn<QByteArray>("allow");
        QTest::addColumn<bool>("expected");
        QTest::newRow("production API address") << kProd + "/sign/api/v1/" << kUnset << true;
        QTest::newRow("staging with prefix") << kStaging + "/prefix/" << kUnset << true;
        QTest::newRow("production spelled with 443") << kProd + ":443/" << kUnset << true;
        QTest::newRow("production on 8443") << kProd + ":8443" << kUnset << false;
        QTest::newRow("production over http") << "http://sign.vantro.example" << kUnset << false;
        QTest::newRow("portal") << kPortal << kUnset << false;
        QTest::newRow("localhost allowed") << kLocal + "/sign/api/v1/" << QByteArray("yes") << true;
        QTest::newRow("localhost refused") << kLocal + "/sign/api/v1/" << kUnset << false;
        QTest::newRow("unusable") << "::::" << kUnset << false;
        QTest::newRow("path only") << "/sign/app/" << kUnset << false;
    }
    void allowedBaseUrl()
    {
        QFETCH(QString, candidate);
        QFETCH(QByteArray, allow);
        applyEnv(kUnset, allow);
        QTEST(isAllowedBaseUrl(candidate), "expected");
    }

    void configured_data()
    {
        QTest::addColumn<QByteArray>("baseEnv");
        QTest::addColumn<QByteArray>("allow");
        QTest::addColumn<QString>("expected");
        QTest::newRow("unset gives production") << kUnset << kUnset << kProd;
        QTest::newRow("empty gives production") << QByteArray("") << kUnset << kProd;
        QTest::newRow("staging API address")
            << QByteArray("https://staging.sign.vantro.example/sign/api/v1/") << kUnset << kStaging;
        QTest::newRow("staging with prefix, blanks trimmed")
            << QByteArray("  https://staging.sign.vantro.example/prefix/  ") << kUnset
            << kStaging + "/prefix";
        QTest::newRow("localhost with allow on")
            << QByteArray("http://localhost:8000/sign/api/v1/") << QByteArray("on") << kLocal;
        QTest::newRow("localhost with allow ON and blanks")
            << QByteArray("http://localhost:8000/sign/api/v1/") << QByteArray(" ON ") << kLocal;
        QTest::newRow("loopback with allow true")
            << QByteArray("http://127.0.0.1:8000") << QByteArray("true") << kLoopback;
        QTest::newRow("localhost without allow")
            << QByteArray("http://localhost:8000/sign/api/v1/") << kUnset << kProd;
        QTest::newRow("localhost with allow off")
            << QByteArray("http://localhost:8000/sign/api/v1/") << QByteArray("off") << kProd;
        QTest::newRow("foreign host ignored")
            << QByteArray("https://evil.example") << kUnset << kProd;
        QTest::newRow("portal ignored")
            << QByteArray("https://account.vantro.example") << kUnset << kProd;
        QTest::newRow("malformed ignored") << QByteArray("::::") << kUnset << kProd;
    }
    void configured()
    {
        QFETCH(QByteArray, baseEnv);
        QFETCH(QByteArray, allow);
        applyEnv(baseEnv, allow);
        QTEST(configuredBaseUrl(), "expected");
    }

    void resolve_data()
    {
        QTest::addColumn<QString>("candidate");
        QTest::addColumn<QByteArray>("baseEnv");
        QTest::addColumn<QByteArray>("allow");
        QTest::addColumn<QString>("expected");
        QTest::newRow("allowed candidate wins over environment")
            << kStaging + "/sign/api/v1" << QByteArray("http://localhost:8000") << QByteArray("on")
            << kStaging;
        QTest::newRow("foreign candidate falls back to environment")
            << "https://evil.example" << QByteArray("https://staging.sign.vantro.example") << kUnset
            << kStaging;
        QTest::newRow("path-only candidate falls back to default")
            << "/sign/app/documents/" << kUnset << kUnset << kProd;
        QTest::newRow("empty candidate takes the environment")
            << "" << QByteArray("http://localhost:8000") << QByteArray("1") << kLocal;
        QTest::newRow("local candidate refused without allow")
            << kLocal << kUnset << kUnset << kProd;
        QTest::newRow("local candidate accepted with allow")
            << kLocal + "/x/" << kUnset << QByteArray("yes") << kLocal + "/x";
    }
    void resolve()
    {
        QFETCH(QString, candidate);
        QFETCH(QByteArray, baseEnv);
        QFETCH(QByteArray, allow);
        applyEnv(baseEnv, allow);
        QTEST(resolveBaseUrl(candidate), "expected");
    }

    void prefix_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("prefix");
        QTest::addColumn<bool>("expected");
        QTest::newRow("prefix without its slash") << "/sign/app"
                                                  << "/sign/app/" << true;
        QTest::newRow("prefix itself") << "/sign/app/"
                                       << "/sign/app/" << true;
        QTest::newRow("below prefix") << "/sign/app/documents/5"
                                      << "/sign/app/" << true;
        QTest::newRow("longer segment") << "/sign/apps/x"
                                        << "/sign/app/" << false;
        QTest::newRow("prefix given without slash") << "/sign/api/v1"
                                                    << "/sign/api/v1" << true;
        QTest::newRow("prefix without slash, longer segment") << "/sign/api/v1x"
                                                              << "/sign/api/v1" << false;
        QTest::newRow("case-sensitive") << "/Sign/app/"
                                        << "/sign/app/" << false;
        QTest::newRow("parent of prefix") << "/sign"
                                          << "/sign/app/" << false;
        QTest::newRow("empty path") << ""
                                    << "/sign/app/" << false;
    }
    void prefix()
    {
        QFETCH(QString, path);
        QFETCH(QString, prefix);
        QTEST(pathHasPrefix(path, prefix), "expected");
    }

    void authAllowed_data()
    {
        QTest::addColumn<QString>("base");
        QTest::addColumn<QUrl>("url");
        QTest::addColumn<bool>("expected");
        QTest::newRow("app path without slash") << kProd << QUrl(kProd + "/sign/app") << true;
        QTest::newRow("app page") << kProd << QUrl(kProd + "/sign/app/documents/") << true;
        QTest::newRow("apps is not app") << kProd << QUrl(kProd + "/sign/apps/x") << false;
        QTest::newRow("api prefix without slash") << kProd << QUrl(kProd + "/sign/api/v1") << true;
        QTest::newRow("api call") << kProd << QUrl(kProd + "/sign/api/v1/documents?x=1") << true;
        QTest::newRow("other api version") << kProd << QUrl(kProd + "/sign/api/v2/x") << false;
        QTest::newRow("root") << kProd << QUrl(kProd + "/") << false;
        QTest::newRow("explicit 443 on request")
            << kProd << QUrl(kProd + ":443/sign/api/v1/x") << false;
        QTest::newRow("base on 8443, request on 8443")
            << kProd + ":8443" << QUrl(kProd + ":8443/sign/api/v1/x") << true;
        QTest::newRow("base on 8443, request without port")
            << kProd + ":8443" << QUrl(kProd + "/sign/api/v1/x") << false;
        QTest::newRow("other origin") << kProd << QUrl(kStaging + "/sign/api/v1/x") << false;
        QTest::newRow("http on the same host")
            << kProd << QUrl("http://sign.vantro.example/sign/api/v1/x") << false;
        QTest::newRow("relative request") << kProd << QUrl("/sign/api/v1/x") << false;
        QTest::newRow("relative request, empty base") << "" << QUrl("/sign/api/v1/x") << false;
        QTest::newRow("base path prefix does not matter")
            << kProd + "/prefix" << QUrl(kProd + "/sign/app/") << true;
        QTest::newRow("request host in capitals")
            << kProd << QUrl("https://SIGN.vantro.example/sign/app/") << true;
        QTest::newRow("dot segments not resolved")
            << kProd << QUrl(kProd + "/other/../sign/app/") << false;
    }
    void authAllowed()
    {
        QFETCH(QString, base);
        QFETCH(QUrl, url);
        QTEST(isAuthAllowedUrl(base, url), "expected");
    }

    void trustedOrigins_data()
    {
        QTest::addColumn<QString>("base");
        QTest::addColumn<QByteArray>("allow");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("production base") << kProd << kUnset << QStringList{kProd, kPortal};
        QTest::newRow("staging base adds staging")
            << kStaging + "/prefix" << kUnset << QStringList{kProd, kPortal, kStaging};
        QTest::newRow("empty base adds nothing") << "" << kUnset << QStringList{kProd, kPortal};
        QTest::newRow("local origins when allowed")
            << kProd << QByteArray("on") << QStringList{kProd, kPortal, kLocal, kLoopback};
        QTest::newRow("local base when allowed")
            << kLocal << QByteArray("on") << QStringList{kProd, kPortal, kLocal, kLoopback};
    }
    void trustedOrigins()
    {
        QFETCH(QString, base);
        QFETCH(QByteArray, allow);
        QFETCH(QStringList, expected);
        applyEnv(kUnset, allow);
        QStringList actual = trustedAppOrigins(base).values();
        actual.sort();
        expected.sort();
        QCOMPARE(actual, expected);
    }

    void trustedApp_data()
    {
        QTest::addColumn<QString>("base");
        QTest::addColumn<QUrl>("url");
        QTest::addColumn<QByteArray>("allow");
        QTest::addColumn<bool>("expected");
        QTest::newRow("own app page") << kProd << QUrl(kProd + "/sign/app/x") << kUnset << true;
        QTest::newRow("portal app page is trusted")
            << kProd << QUrl(kPortal + "/sign/app/documents/") << kUnset << true;
        QTest::newRow("portal outside the app")
            << kProd << QUrl(kPortal + "/login") << kUnset << false;
        QTest::newRow("staging page with production base")
            << kProd << QUrl(kStaging + "/sign/app/") << kUnset << false;
        QTest::newRow("staging page with staging base")
            << kStaging << QUrl(kStaging + "/sign/app/") << kUnset << true;
        QTest::newRow("local page when allowed")
            << kProd << QUrl(kLocal + "/sign/app/") << QByteArray("on") << true;
        QTest::newRow("local page when not allowed")
            << kProd << QUrl(kLoopback + "/sign/app/") << kUnset << false;
        QTest::newRow("app without slash") << kProd << QUrl(kProd + "/sign/app") << kUnset << true;
        QTest::newRow("apps") << kProd << QUrl(kProd + "/sign/apps") << kUnset << false;
        QTest::newRow("api is not a page")
            << kProd << QUrl(kProd + "/sign/api/v1/") << kUnset << false;
        QTest::newRow("relative") << kProd << QUrl("/sign/app/") << kUnset << false;
        QTest::newRow("relative with empty base") << "" << QUrl("/sign/app/") << kUnset << false;
    }
    void trustedApp()
    {
        QFETCH(QString, base);
        QFETCH(QUrl, url);
        QFETCH(QByteArray, allow);
        applyEnv(kUnset, allow);
        QTEST(isTrustedAppUrl(base, url), "expected");
    }

    void sameOriginApp_data()
    {
        QTest::addColumn<QString>("base");
        QTest::addColumn<QUrl>("url");
        QTest::addColumn<bool>("expected");
        QTest::newRow("app page") << kProd << QUrl(kProd + "/sign/app/documents/#x") << true;
        QTest::newRow("portal app page is not the same origin")
            << kProd << QUrl(kPortal + "/sign/app/") << false;
        QTest::newRow("same origin outside the app") << kProd << QUrl(kProd + "/help/") << false;
        QTest::newRow("port differs") << kProd << QUrl(kProd + ":8443/sign/app/") << false;
        QTest::newRow("scheme differs")
            << kProd << QUrl("http://sign.vantro.example/sign/app/") << false;
        QTest::newRow("local base and page") << kLocal << QUrl(kLocal + "/sign/app/") << true;
        QTest::newRow("localhost is not 127.0.0.1")
            << kLocal << QUrl(kLoopback + "/sign/app/") << false;
        QTest::newRow("relative") << kProd << QUrl("/sign/app/") << false;
        QTest::newRow("base with prefix")
            << kStaging + "/p" << QUrl(kStaging + "/sign/app/") << true;
    }
    void sameOriginApp()
    {
        QFETCH(QString, base);
        QFETCH(QUrl, url);
        QTEST(isSameOriginAppUrl(base, url), "expected");
    }

    void webApp_data()
    {
        QTest::addColumn<QString>("base");
        QTest::addColumn<QString>("target");
        QTest::addColumn<QString>("expected");
        const QString documents = kProd + "/sign/app/documents/";
        QTest::newRow("empty target") << kProd << "" << documents;
        QTest::newRow("blank target") << kProd << "  " << documents;
        QTest::newRow("app page") << kProd << " /sign/app/settings/ "
                                  << kProd + "/sign/app/settings/";
        QTest::newRow("query kept")
            << kProd << "/sign/app/documents/?tab=2" << documents + "?tab=2";
        QTest::newRow("api path refused") << kProd << "/sign/api/v1/x" << documents;
        QTest::newRow("foreign page refused")
            << kProd << "https://evil.example/sign/app/" << documents;
        QTest::newRow("portal page kept")
            << kProd << kPortal + "/sign/app/x" << kPortal + "/sign/app/x";
        QTest::newRow("relative target outside app") << kProd << "documents/5" << documents;
        QTest::newRow("base prefix replaced by absolute path")
            << kStaging + "/prefix"
            << "" << kStaging + "/sign/app/documents/";
    }
    void webApp()
    {
        QFETCH(QString, base);
        QFETCH(QString, target);
        QTEST(webAppUrl(base, target).toString(), "expected");
    }

    void api_data()
    {
        QTest::addColumn<QString>("base");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("expected");
        QTest::newRow("absolute path") << kProd << "/documents" << kProd + "/sign/api/v1/documents";
        QTest::newRow("path without slash")
            << kProd << "documents" << kProd + "/sign/api/v1/documents";
        QTest::newRow("no base held") << ""
                                      << "/heartbeat" << kProd + "/sign/api/v1/heartbeat";
        QTest::newRow("base prefix replaced") << kStaging + "/prefix"
                                              << "/jobs/5" << kStaging + "/sign/api/v1/jobs/5";
        QTest::newRow("query kept")
            << kLocal << "/jobs/pdf?x=1" << kLocal + "/sign/api/v1/jobs/pdf?x=1";
    }
    void api()
    {
        QFETCH(QString, base);
        QFETCH(QString, path);
        QTEST(apiUrl(base, path).toString(), "expected");
    }

    void download_data()
    {
        QTest::addColumn<QString>("base");
        QTest::addColumn<QString>("value");
        QTest::addColumn<QString>("expected"); // URL, or the error code
        const QString file = kProd + "/sign/app/documents/5/download/";
        const QString originError = QStringLiteral("VANTRO_SIGN_DOWNLOAD_ORIGIN_NOT_ALLOWED");
        const QString pathError = QStringLiteral("VANTRO_SIGN_DOWNLOAD_PATH_NOT_ALLOWED");
        QTest::newRow("relative") << kProd << "/sign/app/documents/5/download/" << file;
        QTest::newRow("absolute on the base") << kProd << file << file;
        QTest::newRow("query kept") << kProd << file + "?v=2" << file + "?v=2";
        QTest::newRow("base prefix ignored") << kProd + "/prefix"
                                             << "/sign/app/documents/5/download/" << file;
        QTest::newRow("no trailing slash")
            << kProd << "/sign/app/documents/5/download" << pathError;
        QTest::newRow("outside documents") << kProd << "/sign/app/other/5/download/" << pathError;
        QTest::newRow("api path") << kProd << "/sign/api/v1/documents/5/download/" << pathError;
        QTest::newRow("dot segments resolved first")
            << kProd << "/sign/app/documents/../../api/v1/x/download/" << pathError;
        QTest::newRow("other origin with the right path")
            << kProd << kStaging + "/sign/app/documents/5/download/" << originError;
        QTest::newRow("explicit 443")
            << kProd << kProd + ":443/sign/app/documents/5/download/" << originError;
        QTest::newRow("outside app and api") << kProd << "/files/5/download/" << originError;
        QTest::newRow("no base held") << ""
                                      << "/sign/app/documents/5/download/" << originError;
    }
    void download()
    {
        QFETCH(QString, base);
        QFETCH(QString, value);
        QFETCH(QString, expected);
        QString actual;
        try {
            actual = downloadUrl(base, value).toString();
        } catch (const VantroError& error) {
            actual = error.code();
        }
        QCOMPARE(actual, expected);
    }
};

QTEST_GUILESS_MAIN(EndpointsTest)
#include "tst_endpoints.moc"
