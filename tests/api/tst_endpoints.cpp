// URL rules of the service client: base choice, credentials, trusted pages and downloads, and
// the client's base taken from the stored web application address.
#include "api/Endpoints.h"
#include "api/SignApiClient.h"
#include "app/AppState.h"
#include "app/Errors.h"

#include <QTemporaryDir>
#include <QtTest>

#include <functional>

using namespace vantro;
using namespace vantro::endpoints;

// A rule under test as a value of (base, input), so that one table covers every rule.
using Rule = std::function<QVariant(const QString& base, const QString& input)>;
Q_DECLARE_METATYPE(Rule)

namespace {

// The build-time origins the rows are written against.
const QString kUnset = "<unset>", kProd = "https://sign.vantro.example";
const QString kPortal = "https://account.vantro.example";
const QString kStaging = "https://staging.sign.vantro.example";
const QString kLocal = "http://localhost:8000", kLoopback = "http://127.0.0.1:8000";
const QString kOriginError = "VANTRO_SIGN_DOWNLOAD_ORIGIN_NOT_ALLOWED";
const QString kPathError = "VANTRO_SIGN_DOWNLOAD_PATH_NOT_ALLOWED", kDocs = "/sign/app/documents/";

QVariant download(const QString& base, const QString& value)
{
    try {
        return downloadUrl(base, value).toString();
    } catch (const VantroError& error) {
        return error.code();
    }
}

// "<base> <web app page>" of a client whose device.json holds `appUrl`.
QVariant client(const QString& appUrl)
{
    QTemporaryDir dir;
    QFile file(dir.filePath("device.json"));
    if (!file.open(QIODevice::WriteOnly) ||
        file.write("{\"appUrl\":\"" + appUrl.toUtf8() + "\"}") < 0)
        return "cannot write device.json";
    file.close();
    AppState state(file.fileName());
    const SignApiClient client(&state);
    return client.baseUrl() + ' ' + client.webAppUrl().toString();
}

const char* g_name = ""; // the rule that the following rows are about, set by section()
Rule g_rule;

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

private:
    static void section(const char* name, const Rule& rule) { g_name = name, g_rule = rule; }
    static void setEnv(const char* name, const QString& value)
    {
        value == kUnset ? qunsetenv(name) : qputenv(name, value.toUtf8());
    }

private Q_SLOTS:
    void rules_data()
    {
        QTest::addColumn<Rule>("rule");
        QTest::addColumn<QString>("base");
        QTest::addColumn<QString>("input");
        QTest::addColumn<QVariant>("expected");
        QTest::addColumn<QString>("allow");
        QTest::addColumn<QString>("baseEnv");
        const QString apiLocal = kLocal + "/sign/api/v1/", documents = kProd + kDocs;
        const QString file = documents + "5/download/";
        section("normalize", [](auto&, auto& in) { return normalizeBaseUrl(in); });
        row("all at once", "", " HTTPS://E:443/b/sign/api/v1/x/?q=1#f ", "https://e/b");
        row("path only", "", kDocs, "");
        row("http default port dropped", "", "http://Host:80/", "http://host");
        row("https port 80 kept", "", "https://host:80", "https://host:80");
        row("trailing slashes", "", "https://host/a///", "https://host/a");
        row("api prefix cut at first", "", "https://h/p/sign/api/v1/q/sign/api/v1", "https://h/p");
        row("api prefix without slash", "", apiLocal.chopped(1), kLocal);
        section("origin", [](auto&, auto& in) { return originOf(QUrl(in)); });
        row("lower-cased", "", "HTTP://Sign.Example:8000/x", "http://sign.example:8000");
        row("explicit 443 carried", "", kProd + ":443/x", kProd + ":443");
        row("relative", "", kDocs, "");
        section("baseOrigin", [](auto&, auto& in) { return isAllowedBaseOrigin(in); });
        row("portal is never an API base", "", kPortal, false, "on");
        row("localhost when allowed", "", kLocal, true, "TRUE");
        row("loopback when allowed", "", kLoopback, true, "  On \t");
        row("other local port", "", "http://localhost:8001", false, "on");
        section("baseUrl", [](auto&, auto& in) { return isAllowedBaseUrl(in); });
        row("port 443 equals no port", "", kProd + ":443/", true);
        row("port 8443 differs", "", kProd + ":8443", false);
        row("production over http", "", "http://sign.vantro.example", false);
        row("localhost allowed", "", apiLocal, true, "yes");
        section("configured", [](auto&, auto&) { return configuredBaseUrl(); });
        row("unset", "", "", kProd);
        row("prefix kept, trimmed", "", "", kStaging + "/p", kUnset, "  " + kStaging + "/p/ ");
        row("localhost, allow ' ON '", "", "", kLocal, " ON ", apiLocal);
        row("localhost without allow", "", "", kProd, kUnset, apiLocal);
        section("resolve", [](auto&, auto& in) { return resolveBaseUrl(in); });
        row("allowed beats environment", "", kStaging + "/sign/api/v1", kStaging, "on", kLocal);
        row("foreign: environment", "", "https://evil.example", kStaging, kUnset, kStaging);
        row("path only: default", "", kDocs, kProd);
        section("auth", [](auto& base, auto& in) { return isAuthAllowedUrl(base, QUrl(in)); });
        row("/sign/app without slash", kProd, kProd + "/sign/app", true);
        row("/sign/apps/x", kProd, kProd + "/sign/apps/x", false);
        row("request spells out 443", kProd, kProd + ":443/sign/api/v1/x", false);
        row("8443 on both", kProd + ":8443", kProd + ":8443/sign/api/v1/x?y=1", true);
        row("8443 base, request without port", kProd + ":8443", kProd + "/sign/api/v1/x", false);
        row("other origin", kProd, kStaging + "/sign/api/v1/x", false);
        row("base path prefix irrelevant", kProd + "/prefix", kProd + "/sign/app/", true);
        row("dot segments not resolved", kProd, kProd + "/other/../sign/app/", false);
        section("trusted", [](auto& base, auto& in) { return isTrustedAppUrl(base, QUrl(in)); });
        row("portal app page", kProd, kPortal + kDocs, true);
        row("portal outside the app", kProd, kPortal + "/login", false);
        row("staging page, production base", kProd, kStaging + "/sign/app/", false);
        row("staging page, staging base", kStaging, kStaging + "/sign/app/", true);
        row("local page when allowed", kProd, kLocal + "/sign/app/", true, "1");
        row("local page when not allowed", kProd, kLoopback + "/sign/app/", false, "y");
        row("api is not a page", kProd, kProd + "/sign/api/v1/", false);
        section("sameOrigin", [](auto& b, auto& in) { return isSameOriginAppUrl(b, QUrl(in)); });
        row("app page", kProd, documents + "#x", true);
        row("portal app page", kProd, kPortal + "/sign/app/", false);
        row("port differs", kProd, kProd + ":8443/sign/app/", false);
        section("webApp", [](auto& base, auto& in) { return webAppUrl(base, in).toString(); });
        row("blank target", kProd, "  ", documents);
        row("app page, trimmed", kProd, " /sign/app/x/ ", kProd + "/sign/app/x/");
        row("api path refused", kProd, "/sign/api/v1/x", documents);
        row("portal page kept", kProd, kPortal + "/sign/app/x", kPortal + "/sign/app/x");
        row("base prefix replaced", kStaging + "/p", "", kStaging + kDocs);
        section("api", [](auto& base, auto& in) { return apiUrl(base, in).toString(); });
        row("path without slash", kProd, "documents", kProd + "/sign/api/v1/documents");
        row("no base held", "", "/heartbeat", kProd + "/sign/api/v1/heartbeat");
        section("download", download);
        row("relative", kProd, kDocs + "5/download/", file);
        row("no trailing slash", kProd, kDocs + "5/download", kPathError);
        row("dot segments resolved first", kProd, kDocs + "../../api/v1/x/download/", kPathError);
        row("other origin, right path", kProd, kStaging + kDocs + "5/download/", kOriginError);
        row("outside app and api", kProd, "/files/5/download/", kOriginError);
        row("no base held", "", kDocs + "5/download/", kOriginError);
        // The stored appUrl in the base column; "<client base> <web app page>" expected. The web
        // application lives at the origin's root, so a prefixed page is not trusted.
        section("client", [](auto& appUrl, auto&) { return client(appUrl); });
        const QString staging = kStaging + ' ' + kStaging + kDocs;
        row("stored path: environment", kDocs, "", staging, kUnset, kStaging);
        row("stored address beats environment", kStaging + kDocs, "", staging, kUnset, kProd);
        row("stored address with prefix", kStaging + "/p/sign/app/", "",
            kStaging + "/p " + kStaging + kDocs);
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
