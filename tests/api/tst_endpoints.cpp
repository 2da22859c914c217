// URL rules of the service client: base choice, credentials, trusted pages and downloads.
#include "api/Endpoints.h"
#include "app/Errors.h"

#include <QtTest>

#include <functional>

using namespace vantro;
using namespace vantro::endpoints;

// A rule under test as a value of (base, input), so that one table covers every rule.
using Rule = std::function<QVariant(const QString& base, const QString& input)>;
Q_DECLARE_METATYPE(Rule)

namespace {

const QString kUnset = "<unset>", kProd = "https://sign.vantro.example";
const QString kPortal = "https://account.vantro.example";
const QString kStaging = "https://staging.sign.vantro.example";
const QString kLocal = "http://localhost:8000", kLoopback = "http://127.0.0.1:8000";
const QString kOriginError = "VANTRO_SIGN_DOWNLOAD_ORIGIN_NOT_ALLOWED";
const QString kPathError = "VANTRO_SIGN_DOWNLOAD_PATH_NOT_ALLOWED";

void setEnv(const char* name, const QString& value)
{
    if (value == kUnset)
        qunsetenv(name);
    else
        qputenv(name, value.toUtf8());
}

QVariant download(const QString& base, const QString& value)
{
    try {
        return downloadUrl(base, value).toString();
    } catch (const VantroError& error) {
        return error.code();
    }
}

QVariant trustedOrigins(const QString& base, const QString&)
{
    QStringList origins = trustedAppOrigins(base).values();
    origins.sort();
    return origins.join(' ');
}

const char* g_name = ""; // the rule that the following rows are about
Rule g_rule;

void section(const char* name, const Rule& rule)
{
    g_name = name;
    g_rule = rule;
}

// One rule case; the environment variables stay unset unless given.
void row(const char* name, const QString& base, const QString& input, const QVariant& expected,
         const QString& allow = kUnset, const QString& baseEnv = kUnset)
{
    QTest::addRow("%s: %s", g_name, name)
        << g_rule << base << input << expected << allow << baseEnv;
}

} // namespace

class EndpointsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        // The rows below are written against these build-time origins.
        QCOMPARE(productionOrigin(), kProd);
        QCOMPARE(portalOrigin(), kPortal);
        QCOMPARE(stagingOrigin(), kStaging);
    }

    void rules_data()
    {
        QTest::addColumn<Rule>("rule");
        QTest::addColumn<QString>("base");
        QTest::addColumn<QString>("input");
        QTest::addColumn<QVariant>("expected");
        QTest::addColumn<QString>("allow");
        QTest::addColumn<QString>("baseEnv");
        const QString apiLocal = kLocal + "/sign/api/v1/";
        const QString documents = kProd + "/sign/app/documents/";
        const QString file = documents + "5/download/";
        section("allowLocal", [](auto&, auto&) { return allowLocalApiBase(); });
        row("unset", "", "", false);
        row("1", "", "", true, "1");
        row("TRUE", "", "", true, "TRUE");
        row("yes", "", "", true, "yes");
        row("On with blanks", "", "", true, "  On \t");
        row("y is not yes", "", "", false, "y");
        row("2 is not 1", "", "", false, "2");
        section("normalize", [](auto&, auto& in) { return normalizeBaseUrl(in); });
        row("everything at once", "", "  HTTPS://Example:443/base/sign/api/v1/x/?q=1#f  ",
            "https://example/base");
        row("blanks", "", "   ", "");
        row("path only", "", "/sign/app/documents/", "");
        row("file url has no host", "", "file:///tmp/x", "");
        row("http default port dropped", "", "http://Host:80/", "http://host");
        row("https port 80 kept", "", "https://host:80", "https://host:80");
        row("port 8443 kept", "", "https://host:8443/", "https://host:8443");
        row("trailing slashes", "", "https://host/a///", "https://host/a");
        row("api prefix cut at first", "", "https://h/p/sign/api/v1/q/sign/api/v1", "https://h/p");
        row("api prefix without slash", "", apiLocal.chopped(1), kLocal);
        row("api prefix case-sensitive", "", "https://h/SIGN/api/v1/", "https://h/SIGN/api/v1");
        row("app path not cut", "", "https://h/sign/app/x/", "https://h/sign/app/x");
        row("encoded blank readable", "", "https://host/a%20b/", "https://host/a b");
        section("origin", [](auto&, auto& in) { return originOf(QUrl(in)); });
        row("lower-cased, path ignored", "", "HTTP://Sign.Example:8000/x",
            "http://sign.example:8000");
        row("explicit 443 carried", "", kProd + ":443/x", kProd + ":443");
        row("relative", "", "/sign/app/", "");
        row("no host", "", "file:///tmp/x", "");
        section("baseOrigin", [](auto&, auto& in) { return isAllowedBaseOrigin(in); });
        row("production", "", kProd, true);
        row("staging", "", kStaging, true);
        row("portal is never an API base", "", kPortal, false, "on");
        row("localhost by default", "", kLocal, false);
        row("localhost when allowed", "", kLocal, true, "on");
        row("loopback when allowed", "", kLoopback, true, "1");
        row("other local port", "", "http://localhost:8001", false, "on");
        row("origin text with :443", "", kProd + ":443", false);
        section("baseUrl", [](auto&, auto& in) { return isAllowedBaseUrl(in); });
        row("production API address", "", kProd + "/sign/api/v1/", true);
        row("port 443 equals no port", "", kProd + ":443/", true);
        row("port 8443 differs", "", kProd + ":8443", false);
        row("production over http", "", "http://sign.vantro.example", false);
        row("portal", "", kPortal, false, "on");
        row("localhost allowed", "", apiLocal, true, "yes");
        section("configured", [](auto&, auto&) { return configuredBaseUrl(); });
        row("unset", "", "", kProd);
        row("prefix kept, blanks trimmed", "", "", kStaging + "/p", kUnset,
            "  " + kStaging + "/p/  ");
        row("localhost with allow on", "", "", kLocal, "on", apiLocal);
        row("localhost with allow ' ON '", "", "", kLocal, " ON ", apiLocal);
        row("localhost without allow", "", "", kProd, kUnset, apiLocal);
        row("foreign host ignored", "", "", kProd, kUnset, "https://evil.example");
        row("malformed ignored", "", "", kProd, kUnset, "::::");
        section("resolve", [](auto&, auto& in) { return resolveBaseUrl(in); });
        row("allowed candidate beats environment", "", kStaging + "/sign/api/v1", kStaging, "on",
            kLocal);
        row("foreign candidate: environment", "", "https://evil.example", kStaging, kUnset,
            kStaging);
        row("path-only candidate: default", "", "/sign/app/documents/", kProd);
        row("local candidate without allow", "", kLocal, kProd);
        row("local candidate with allow", "", kLocal + "/x/", kLocal + "/x", "yes");

        // The path comes in the base column, the prefix in the input column.
        section("prefix", [](auto& path, auto& prefix) { return pathHasPrefix(path, prefix); });
        row("prefix without its slash", "/sign/app", "/sign/app/", true);
        row("longer segment", "/sign/apps/x", "/sign/app/", false);
        row("prefix given without slash", "/sign/api/v1", "/sign/api/v1", true);
        row("longer segment, prefix without slash", "/sign/api/v1x", "/sign/api/v1", false);
        row("case-sensitive", "/Sign/app/", "/sign/app/", false);
        section("auth", [](auto& base, auto& in) { return isAuthAllowedUrl(base, QUrl(in)); });
        row("/sign/app without slash", kProd, kProd + "/sign/app", true);
        row("/sign/apps/x", kProd, kProd + "/sign/apps/x", false);
        row("/sign/api/v1 without slash", kProd, kProd + "/sign/api/v1", true);
        row("api call", kProd, kProd + "/sign/api/v1/documents?x=1", true);
        row("other api version", kProd, kProd + "/sign/api/v2/x", false);
        row("request spells out 443", kProd, kProd + ":443/sign/api/v1/x", false);
        row("8443 on both", kProd + ":8443", kProd + ":8443/sign/api/v1/x", true);
        row("8443 base, request without port", kProd + ":8443", kProd + "/sign/api/v1/x", false);
        row("other origin", kProd, kStaging + "/sign/api/v1/x", false);
        row("http on the same host", kProd, "http://sign.vantro.example/sign/app/", false);
        row("relative request, empty base", "", "/sign/api/v1/x", false);
        row("base path prefix irrelevant", kProd + "/prefix", kProd + "/sign/app/", true);
        row("dot segments not resolved", kProd, kProd + "/other/../sign/app/", false);
        section("trustedOrigins", trustedOrigins);
        row("production base", kProd, "", kPortal + " " + kProd);
        row("staging base adds staging", kStaging + "/p", "",
            kPortal + " " + kProd + " " + kStaging);
        row("empty base adds nothing", "", "", kPortal + " " + kProd);
        row("local origins when allowed", kProd, "",
            kLoopback + " " + kLocal + " " + kPortal + " " + kProd, "on");
        section("trusted", [](auto& base, auto& in) { return isTrustedAppUrl(base, QUrl(in)); });
        row("portal app page", kProd, kPortal + "/sign/app/documents/", true);
        row("portal outside the app", kProd, kPortal + "/login", false);
        row("staging page, production base", kProd, kStaging + "/sign/app/", false);
        row("staging page, staging base", kStaging, kStaging + "/sign/app/", true);
        row("local page when allowed", kProd, kLocal + "/sign/app/", true, "on");
        row("local page when not allowed", kProd, kLoopback + "/sign/app/", false);
        row("api is not a page", kProd, kProd + "/sign/api/v1/", false);
        row("relative, empty base", "", "/sign/app/", false);
        section("sameOrigin",
                [](auto& base, auto& in) { return isSameOriginAppUrl(base, QUrl(in)); });
        row("app page", kProd, kProd + "/sign/app/documents/#x", true);
        row("portal app page", kProd, kPortal + "/sign/app/", false);
        row("port differs", kProd, kProd + ":8443/sign/app/", false);
        row("localhost is not 127.0.0.1", kLocal, kLoopback + "/sign/app/", false);
        row("relative", kProd, "/sign/app/", false);
        row("base with prefix", kStaging + "/p", kStaging + "/sign/app/", true);
        section("webApp", [](auto& base, auto& in) { return webAppUrl(base, in).toString(); });
        row("blank target", kProd, "  ", documents);
        row("app page, trimmed", kProd, " /sign/app/settings/ ", kProd + "/sign/app/settings/");
        row("api path refused", kProd, "/sign/api/v1/x", documents);
        row("foreign page refused", kProd, "https://evil.example/sign/app/", documents);
        row("portal page kept", kProd, kPortal + "/sign/app/x", kPortal + "/sign/app/x");
        row("base prefix replaced", kStaging + "/p", "", kStaging + "/sign/app/documents/");
        section("api", [](auto& base, auto& in) { return apiUrl(base, in).toString(); });
        row("absolute path", kProd, "/documents", kProd + "/sign/api/v1/documents");
        row("path without slash", kProd, "documents", kProd + "/sign/api/v1/documents");
        row("no base held", "", "/heartbeat", kProd + "/sign/api/v1/heartbeat");
        row("base prefix replaced", kStaging + "/p", "/jobs/5?x=1",
            kStaging + "/sign/api/v1/jobs/5?x=1");
        section("download", download);
        row("relative", kProd, "/sign/app/documents/5/download/", file);
        row("base prefix ignored", kProd + "/p", "/sign/app/documents/5/download/", file);
        row("no trailing slash", kProd, "/sign/app/documents/5/download", kPathError);
        row("api path", kProd, "/sign/api/v1/documents/5/download/", kPathError);
        row("dot segments resolved first", kProd, "/sign/app/documents/../../api/v1/x/download/",
            kPathError);
        row("other origin, right path", kProd, kStaging + "/sign/app/documents/5/download/",
            kOriginError);
        row("outside app and api", kProd, "/files/5/download/", kOriginError);
        row("no base held", "", "/sign/app/documents/5/download/", kOriginError);
    }
    void rules()
    {
        QFETCH(Rule, rule);
        QFETCH(QString, base);
        QFETCH(QString, input);
        QFETCH(QString, allow);
        QFETCH(QString, baseEnv);
        setEnv("VANTRO_SIGN_ALLOW_LOCAL_API_BASE", allow);
        setEnv("VANTRO_SIGN_BASE_URL", baseEnv);
        QTEST(rule(base, input), "expected");
    }
};

QTEST_GUILESS_MAIN(EndpointsTest)
#include "tst_endpoints.moc"
