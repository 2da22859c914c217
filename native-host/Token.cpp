#include "Token.h"

#include "app/Errors.h"
#include "Logging.h"

namespace vantro::host {

TokenSession::TokenSession(const Pkcs11Module& module, ck_slot_id_t slot)
    : m_module(module)
    , m_api(module.api())
    , m_slot(slot)
{
    check(m_api->C_OpenSession(slot, CKF_SERIAL_SESSION, nullptr, nullptr, &m_session),
          "C_OpenSession");
}

TokenSession::~TokenSession()
{
    m_api->C_CloseSession(m_session);
}

std::vector<ck_object_handle_t> TokenSession::findObjects(struct ck_attribute* query,
                                                          unsigned long count)
{
    check(m_api->C_FindObjectsInit(m_session, query, count), "C_FindObjectsInit");
    std::vector<ck_object_handle_t> objects;
    ck_object_handle_t batch[32];
    unsigned long found = 0;
    ck_rv_t rv = CKR_OK;
    while ((rv = m_api->C_FindObjects(m_session, batch, 32, &found)) == CKR_OK && found)
        objects.insert(objects.end(), batch, batch + found);
    m_api->C_FindObjectsFinal(m_session);
    check(rv, "C_FindObjects");
    return objects;
}

QByteArray TokenSession::attribute(ck_object_handle_t object, ck_attribute_type_t type)
{
    struct ck_attribute probe = {type, nullptr, 0};
    const ck_rv_t rv = m_api->C_GetAttributeValue(m_session, object, &probe, 1);
    if (rv == CKR_ATTRIBUTE_TYPE_INVALID || rv == CKR_ATTRIBUTE_SENSITIVE ||
        probe.value_len == static_cast<unsigned long>(-1))
        return {};
    check(rv, "C_GetAttributeValue");
    QByteArray value(qsizetype(probe.value_len), '\0');
    probe.value = value.data();
    check(m_api->C_GetAttributeValue(m_session, object, &probe, 1), "C_GetAttributeValue");
    value.resize(qsizetype(probe.value_len));
    return value;
}

QList<TokenCertificate> TokenSession::certificates()
{
    ck_object_class_t certificateClass = CKO_CERTIFICATE;
    ck_certificate_type_t x509 = CKC_X_509;
    struct ck_attribute query[] = {{CKA_CLASS, &certificateClass, sizeof certificateClass},
                                   {CKA_CERTIFICATE_TYPE, &x509, sizeof x509}};
    QList<TokenCertificate> out;
    for (ck_object_handle_t object : findObjects(query, 2)) {
        TokenCertificate certificate{attribute(object, CKA_VALUE),
                                     attribute(object, CKA_ID),
                                     QString::fromUtf8(attribute(object, CKA_LABEL)),
                                     {}};
        certificate.info = describeCertificate(certificate.der);
        out.append(certificate);
    }
    return out;
}

ck_object_handle_t TokenSession::privateKey(const QByteArray& id)
{
    ck_object_class_t keyClass = CKO_PRIVATE_KEY;
    QByteArray wanted = id;
    struct ck_attribute query[] = {
        {CKA_CLASS, &keyClass, sizeof keyClass},
        {CKA_ID, wanted.data(), static_cast<unsigned long>(wanted.size())}};
    const std::vector<ck_object_handle_t> keys = findObjects(query, 2);
    return keys.empty() ? 0 : keys.front();
}

bool TokenSession::alwaysAuthenticate(ck_object_handle_t key)
{
    const QByteArray flag = attribute(key, CKA_ALWAYS_AUTHENTICATE);
    return !flag.isEmpty() && flag.at(0) != 0;
}

void TokenSession::login(unsigned long userType, const QByteArray& pin)
{
    auto* bytes = reinterpret_cast<unsigned char*>(const_cast<char*>(pin.constData()));
    const ck_rv_t rv = m_api->C_Login(m_session, userType, pin.isEmpty() ? nullptr : bytes,
                                      static_cast<unsigned long>(pin.size()));
    if (rv == CKR_USER_ALREADY_LOGGED_IN)
        return;
    check(rv, "C_Login");
}

QByteArray TokenSession::sign(ck_object_handle_t key, const struct ck_mechanism& mechanism,
                              const QByteArray& data, const std::function<void()>& afterInit)
{
    struct ck_mechanism used = mechanism;
    check(m_api->C_SignInit(m_session, &used, key), "C_SignInit");
    if (afterInit)
        afterInit();
    auto* input = reinterpret_cast<unsigned char*>(const_cast<char*>(data.constData()));
    unsigned long length = 0;
    check(
        m_api->C_Sign(m_session, input, static_cast<unsigned long>(data.size()), nullptr, &length),
        "C_Sign");
    QByteArray signature(qsizetype(length), '\0');
    check(m_api->C_Sign(m_session, input, static_cast<unsigned long>(data.size()),
                        reinterpret_cast<unsigned char*>(signature.data()), &length),
          "C_Sign");
    signature.resize(qsizetype(length));
    return signature;
}

Middleware::Middleware()
{
    QStringList failures;
    for (const ModuleCandidate& candidate : moduleCandidates()) {
        try {
            m_modules.push_back(std::make_unique<Pkcs11Module>(candidate.path));
        } catch (const CodedError& error) {
            failures << error.message();
        }
    }
    if (m_modules.empty())
        throw CodedError(QStringLiteral("ERR_VANTRO_MIDDLEWARE_MISSING"),
                         failures.isEmpty() ? QStringLiteral("No PKCS#11 module was found.")
                                            : failures.join(QLatin1Char(' ')));
}

template <typename Score>
Middleware::Found Middleware::best(const Score& score, const QString& missingCode,
                                   const QString& missingMessage)
{
    Found winner;
    int winning = 0;
    bool anyToken = false;
    for (const auto& module : m_modules) {
        for (ck_slot_id_t slot : module->tokenSlots()) {
            anyToken = true;
            auto session = std::make_shared<TokenSession>(*module, slot);
            for (const TokenCertificate& certificate : session->certificates()) {
                const int fitness = score(certificate);
                if (fitness > winning) {
                    winning = fitness;
                    winner.certificate = certificate;
                    winner.session = session;
                }
            }
        }
    }
    if (!anyToken)
        throw CodedError(QStringLiteral("PKCS11_TOKEN_NOT_PRESENT"),
                         QStringLiteral("No card or token detected."));
    if (!winner.session)
        throw CodedError(missingCode, missingMessage);
    return winner;
}

Middleware::Found Middleware::find(CertificateRole role)
{
    const bool signing = role == CertificateRole::Signing;
    return best([role](const TokenCertificate& c) { return roleFitness(c.info, role); },
                signing ? QStringLiteral("ERR_VANTRO_NO_SIGNING_CERTIFICATE")
                        : QStringLiteral("ERR_VANTRO_NO_AUTHENTICATION_CERTIFICATE"),
                signing ? QStringLiteral("No signing certificate is on the card or token.")
                        : QStringLiteral("No authentication certificate is on the card or token."));
}

Middleware::Found Middleware::findCertificate(const QByteArray& der)
{
    return best([&der](const TokenCertificate& c) { return c.der == der ? 1 : 0; },
                QStringLiteral("ERR_VANTRO_NO_SIGNING_CERTIFICATE"),
                QStringLiteral("The certificate is not on any connected card or token."));
}

} // namespace vantro::host
