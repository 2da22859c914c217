// The four commands of the card host, with the web-eID field names.
#include "HostCommands.h"

#include "app/Errors.h"
#include "KeySigner.h"
#include "Logging.h"
#include "SignatureAlgorithms.h"
#include "Token.h"
#include "vantro_config.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <functional>

namespace vantro::host {

namespace {

constexpr int kMinimumNonceLength = 44; // 32 random bytes in Base64

[[noreturn]] void invalidArgument(const QString& message)
{
    throw CodedError(QStringLiteral("ERR_VANTRO_INVALID_ARGUMENT"), message);
}

QString requiredText(const QJsonObject& arguments, const char* key)
{
    const QString text = arguments.value(QLatin1String(key)).toString();
    if (text.isEmpty())
        invalidArgument(QStringLiteral("%1 is required.").arg(QLatin1String(key)));
    return text;
}

QByteArray base64Value(const QJsonValue& value, const QString& what)
{
    const auto decoded = QByteArray::fromBase64Encoding(value.toString().toLatin1(),
                                                        QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded || decoded.decoded.isEmpty())
        invalidArgument(QStringLiteral("%1 must be non-empty Base64.").arg(what));
    return decoded.decoded;
}

QString base64(const QByteArray& bytes)
{
    return QString::fromLatin1(bytes.toBase64());
}

// The hashes to sign, checked against their function before anyone is asked for a PIN.
QList<QByteArray> digests(const QJsonArray& values, const HashFunction& hash)
{
    QList<QByteArray> out;
    for (const QJsonValue& value : values) {
        const QByteArray digest = base64Value(value, QStringLiteral("hash"));
        checkDigestLength(hash, digest);
        out.append(digest);
    }
    return out;
}

QJsonObject getSigningCertificate(const QJsonObject&, PinPrompt&)
{
    Middleware middleware;
    const Middleware::Found found = middleware.find(CertificateRole::Signing);
    return {{QStringLiteral("certificate"), base64(found.certificate.der)},
            {QStringLiteral("supportedSignatureAlgorithms"),
             supportedSignatureAlgorithms(found.certificate.info.keyType)}};
}

struct SignRequest
{
    QList<QByteArray> digests;
    const HashFunction* hash;
    Middleware::Found found;
    Padding padding;
};

SignRequest signRequest(const QJsonObject& arguments, const QJsonArray& hashes,
                        Middleware& middleware)
{
    const HashFunction& hash = hashFunction(requiredText(arguments, "hashFunction"));
    const QList<QByteArray> list = digests(hashes, hash);
    const QByteArray certificate =
        base64Value(arguments.value(QLatin1String("certificate")), QStringLiteral("certificate"));
    Middleware::Found found = middleware.findCertificate(certificate);
    const Padding padding = paddingFor(found.certificate.info.keyType,
                                       arguments.value(QLatin1String("paddingScheme")).toString());
    return {list, &hash, std::move(found), padding};
}

QJsonObject sign(const QJsonObject& arguments, PinPrompt& prompt)
{
    const QJsonValue hash = arguments.value(QLatin1String("hash"));
    if (hash.toString().isEmpty())
        invalidArgument(QStringLiteral("hash is required."));
    Middleware middleware;
    SignRequest request = signRequest(arguments, QJsonArray{hash}, middleware);
    KeySigner signer(request.found, prompt, KeySigner::Purpose::Signing);
    const QByteArray signature =
        signer.sign(request.digests, *request.hash, request.padding).first();
    return {{QStringLiteral("signature"), base64(signature)},
            {QStringLiteral("signatureAlgorithm"),
             signatureAlgorithm(request.found.certificate.info.keyType, *request.hash,
                                request.padding)}};
}

QJsonObject signBatch(const QJsonObject& arguments, PinPrompt& prompt)
{
    const QJsonArray hashes = arguments.value(QLatin1String("hashes")).toArray();
    if (hashes.isEmpty())
        invalidArgument(QStringLiteral("hashes must be a non-empty list."));
    Middleware middleware;
    SignRequest request = signRequest(arguments, hashes, middleware);
    KeySigner signer(request.found, prompt, KeySigner::Purpose::Signing);
    QJsonArray signatures;
    for (const QByteArray& signature : signer.sign(request.digests, *request.hash, request.padding))
        signatures.append(base64(signature));
    return {{QStringLiteral("signatures"), signatures},
            {QStringLiteral("signatureAlgorithm"),
             signatureAlgorithm(request.found.certificate.info.keyType, *request.hash,
                                request.padding)}};
}

// The web-eID authentication token: a signature over hash(hash(origin) + hash(nonce)).
QJsonObject authenticate(const QJsonObject& arguments, PinPrompt& prompt)
{
    const QString nonce = requiredText(arguments, "challengeNonce");
    if (nonce.size() < kMinimumNonceLength)
        invalidArgument(QStringLiteral("challengeNonce must be at least %1 characters long.")
                            .arg(kMinimumNonceLength));
    const QString origin = requiredText(arguments, "origin");
    Middleware middleware;
    const Middleware::Found found = middleware.find(CertificateRole::Authentication);
    const CertificateInfo& info = found.certificate.info;
    const HashFunction& hash = info.keyType == KeyType::Ec
                                   ? hashForEcKey(info.keyBits)
                                   : hashFunction(QStringLiteral("SHA-256"));
    const Padding padding = paddingFor(info.keyType, {});
    const QByteArray signed_ =
        digest(hash, digest(hash, origin.toUtf8()) + digest(hash, nonce.toUtf8()));
    KeySigner signer(found, prompt, KeySigner::Purpose::Authentication);
    const QByteArray signature = signer.sign({signed_}, hash, padding).first();
    return {{QStringLiteral("unverifiedCertificate"), base64(found.certificate.der)},
            {QStringLiteral("algorithm"), jwsAlgorithm(info.keyType, hash, padding)},
            {QStringLiteral("signature"), base64(signature)},
            {QStringLiteral("format"), QStringLiteral("web-eid:1.0")},
            {QStringLiteral("appVersion"), QStringLiteral("vantro-sign-native-host/") +
                                               QLatin1String(config::kApplicationVersion)}};
}

using Command = std::function<QJsonObject(const QJsonObject&, PinPrompt&)>;

Command commandNamed(const QString& name)
{
    static const QList<QPair<QString, Command>> kCommands{
        {QStringLiteral("get-signing-certificate"), getSigningCertificate},
        {QStringLiteral("sign"), sign},
        {QStringLiteral("sign-batch"), signBatch},
        {QStringLiteral("authenticate"), authenticate},
    };
    for (const auto& [known, command] : kCommands)
        if (known == name)
            return command;
    throw CodedError(QStringLiteral("ERR_VANTRO_UNKNOWN_COMMAND"),
                     QStringLiteral("Unknown command: %1.").arg(name));
}

QJsonObject errorAnswer(const QString& code, const QString& message)
{
    return {{QStringLiteral("error"),
             QJsonObject{{QStringLiteral("code"), code}, {QStringLiteral("message"), message}}}};
}

} // namespace

QJsonObject handshake()
{
    return {{QStringLiteral("version"), QLatin1String(config::kApplicationVersion)},
            {QStringLiteral("protocol"), QStringLiteral("vantro-sign-native-host/1")}};
}

QJsonObject answerRequest(const QByteArray& frame, PinPrompt& prompt)
{
    try {
        const QJsonDocument document = QJsonDocument::fromJson(frame);
        const QJsonObject request = document.object();
        const QJsonValue arguments = request.value(QLatin1String("arguments"));
        if (!document.isObject() || !request.value(QLatin1String("command")).isString() ||
            !(arguments.isObject() || arguments.isUndefined()))
            throw CodedError(QStringLiteral("ERR_VANTRO_INVALID_REQUEST"),
                             QStringLiteral("The request is not a command object."));
        const QString name = request.value(QLatin1String("command")).toString();
        const QJsonObject answer = commandNamed(name)(arguments.toObject(), prompt);
        qCInfo(lcHost).noquote() << "answered" << name;
        return answer;
    } catch (const CodedError& error) {
        return errorAnswer(error.code(), error.message());
    } catch (const std::exception& error) {
        return errorAnswer(QStringLiteral("ERR_VANTRO_HOST_FAILED"), describeFailure(error));
    }
}

} // namespace vantro::host
