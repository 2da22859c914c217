#include "api/DeviceActivation.h"

#include "api/Endpoints.h"
#include "api/Logging.h"
#include "api/SignApiClient.h"
#include "app/Errors.h"
#include "vantro_config.h"

#include <QJsonDocument>
#include <QNetworkReply>
#include <QUrlQuery>

namespace vantro::activation {

namespace {

constexpr int kActivationTimeoutMs = 30000;
constexpr char kActivatePath[] = "/devices/activate";

[[noreturn]] void refuse(const char* code, const char* message)
{
    throw CodedError(QString::fromLatin1(code), QString::fromUtf8(message));
}

[[noreturn]] void refuseAnswer()
{
    refuse("VANTRO_SIGN_ACTIVATION_INVALID_RESPONSE",
           "Vantro Sign paslaugos atsakymas netinkamas, kompiuteris neaktyvuotas. Bandykite dar "
           "kartą vėliau.");
}

QString requiredText(const QJsonObject& answer, const char* key)
{
    const QString value = answer.value(QLatin1String(key)).toString().trimmed();
    if (value.isEmpty())
        refuseAnswer();
    return value;
}

QJsonObject requiredObject(const QJsonObject& answer, const char* key)
{
    const QJsonValue value = answer.value(QLatin1String(key));
    if (!value.isObject())
        refuseAnswer();
    return value.toObject();
}

// The service's refusal, by its error code or, without one, its status.
[[noreturn]] void refuseCode(int status, const QJsonObject& answer)
{
    const QString code =
        answer.value(QStringLiteral("error")).toObject().value(QStringLiteral("code")).toString();
    if (status == 410 || code.contains(QLatin1String("EXPIRED")))
        refuse("VANTRO_SIGN_ACTIVATION_CODE_EXPIRED",
               "Šio aktyvavimo kodo galiojimas baigėsi. Paprašykite naujo kodo.");
    if (status == 400 || status == 404 || code.contains(QLatin1String("CODE")))
        refuse("VANTRO_SIGN_ACTIVATION_CODE_INVALID",
               "Aktyvavimo kodas neteisingas. Patikrinkite jį ir bandykite dar kartą.");
    refuse("VANTRO_SIGN_ACTIVATION_FAILED",
           "Vantro Sign paslauga šiuo metu negali aktyvuoti kompiuterio. Bandykite dar kartą "
           "vėliau.");
}

QString platformName()
{
#ifdef Q_OS_WIN
    return QStringLiteral("windows");
#else
    return QStringLiteral("linux");
#endif
}

} // namespace

QString normalizeCode(const QString& code)
{
    QString compact = code.simplified().toUpper();
    compact.remove(QLatin1Char(' '));
    return compact;
}

AppState::Activation parseGrant(const QJsonObject& answer, const QString& base)
{
    AppState::Activation grant;
    grant.deviceId = requiredText(answer, "device_id");
    grant.secret = requiredText(answer, "device_secret");
    grant.workspaceId = requiredText(answer, "workspace_id");
    grant.license = requiredObject(answer, "license");
    grant.signerProfile = requiredObject(answer, "signer_profile");
    const QString appPath = requiredText(answer, "app_url");
    grant.apiBase = requiredText(answer, "api_base");
    // The web application must live on the service it was granted by.
    const QUrl app = QUrl(base).resolved(QUrl(appPath));
    if (!endpoints::isSameOriginAppUrl(base, app))
        refuseAnswer();
    grant.appUrl = app.toString();
    grant.record = answer;
    grant.record.remove(QStringLiteral("device_secret"));
    return grant;
}

QString resolveActivationBase(const QString& linkBase, const QString& currentBase)
{
    if (linkBase.trimmed().isEmpty())
        return endpoints::resolveBaseUrl(currentBase);
    if (!endpoints::isAllowedBaseUrl(linkBase))
        refuse("VANTRO_SIGN_ACTIVATION_BASE_NOT_ALLOWED",
               "Aktyvavimo nuorodoje nurodytas Vantro Sign paslaugos adresas neleidžiamas. "
               "Kompiuteris neaktyvuotas.");
    return endpoints::resolveBaseUrl(linkBase);
}

AppState::Activation request(SignApiClient& api, const QString& base, const QString& code,
                             const QString& deviceName)
{
    const QString normalized = normalizeCode(code);
    if (normalized.isEmpty())
        refuse("VANTRO_SIGN_ACTIVATION_CODE_REQUIRED", "Įveskite aktyvavimo kodą.");
    // A fresh request: an activation never carries the credentials of an earlier one.
    QNetworkRequest request(endpoints::apiUrl(base, QString::fromLatin1(kActivatePath)));
    request.setHeader(QNetworkRequest::UserAgentHeader,
                      QByteArray("VantroSignNext/") + config::kApplicationVersion);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray("application/json"));
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::SameOriginRedirectPolicy);
    const QJsonObject body{
        {QStringLiteral("activation_code"), normalized},
        {QStringLiteral("device_name"), deviceName},
        {QStringLiteral("app_version"), QString::fromLatin1(config::kApplicationVersion)},
        {QStringLiteral("platform"), platformName()}};
    int status = 0;
    QByteArray raw;
    try {
        raw = api.sendAndWait(
            api.network().post(request, QJsonDocument(body).toJson(QJsonDocument::Compact)),
            kActivationTimeoutMs, &status);
    } catch (const std::exception& failure) {
        qCWarning(lcApi).noquote() << "activation did not reach the service:" << failure.what();
        refuse("VANTRO_SIGN_ACTIVATION_UNREACHABLE",
               "Nepavyko susisiekti su Vantro Sign paslauga. Patikrinkite interneto ryšį ir "
               "bandykite dar kartą.");
    }
    const QJsonObject answer = QJsonDocument::fromJson(raw).object();
    qCInfo(lcApi) << "activation answered with status" << status;
    if (status != 200)
        refuseCode(status, answer);
    return parseGrant(answer, base);
}

LinkRequest parseActivationLink(const QString& link)
{
    const QUrl url(link.trimmed());
    const QUrlQuery query(url);
    LinkRequest request;
    request.code = query.queryItemValue(QStringLiteral("code"), QUrl::FullyDecoded);
    request.base = query.queryItemValue(QStringLiteral("base"), QUrl::FullyDecoded);
    if (request.code.isEmpty()) {
        // vantrosign://activate/CODE or vantrosign:CODE
        const QStringList pieces = url.path().split(QLatin1Char('/'), Qt::SkipEmptyParts);
        if (!pieces.isEmpty())
            request.code = pieces.last();
    }
    return request;
}

} // namespace vantro::activation
