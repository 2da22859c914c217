#include "KeySigner.h"

#include "app/Errors.h"
#include "PinPrompt.h"

namespace vantro::host {

namespace {

PinRequest pinRequest(const struct ck_token_info& info, bool forSigning)
{
    PinRequest request;
    request.tokenLabel = fieldText(info.label);
    request.forSigning = forSigning;
    request.countLow = info.flags & CKF_USER_PIN_COUNT_LOW;
    request.finalTry = info.flags & CKF_USER_PIN_FINAL_TRY;
    request.minLength = int(qBound(1ul, info.min_pin_len, 64ul));
    request.maxLength = int(qBound(ulong(request.minLength), info.max_pin_len, 64ul));
    return request;
}

[[noreturn]] void pinLocked()
{
    throw CodedError(QStringLiteral("ERR_VANTRO_PIN_LOCKED"), QStringLiteral("The PIN is locked."));
}

} // namespace

KeySigner::KeySigner(const Middleware::Found& found, PinPrompt& prompt, Purpose purpose)
    : m_found(found)
    , m_prompt(prompt)
    , m_purpose(purpose)
{
}

KeySigner::~KeySigner()
{
    m_pin.fill('\0');
}

// Asks for the PIN the first time only; a wrong PIN says what the token now reports of tries.
void KeySigner::login(unsigned long userType)
{
    const struct ck_token_info info = m_found.session->tokenInfo();
    if (info.flags & CKF_USER_PIN_LOCKED)
        pinLocked();
    const PinRequest request = pinRequest(info, m_purpose == Purpose::Signing);
    m_pinPad = info.flags & CKF_PROTECTED_AUTHENTICATION_PATH;
    if (!m_pinPad && m_pin.isEmpty()) {
        std::optional<QByteArray> pin = m_prompt.ask(request);
        if (!pin)
            throw CodedError(QStringLiteral("ERR_WEBEID_USER_CANCELLED"),
                             QStringLiteral("PIN entry was cancelled."));
        m_pin = *pin;
        pin->fill('\0');
    }
    if (m_pinPad)
        m_prompt.showPinPadNotice(request);
    try {
        m_found.session->login(userType, m_pinPad ? QByteArray() : m_pin);
    } catch (const CodedError& error) {
        if (m_pinPad)
            m_prompt.hidePinPadNotice();
        if (error.code() != QLatin1String("ERR_VANTRO_PIN_INCORRECT"))
            throw;
        const struct ck_token_info after = m_found.session->tokenInfo();
        if (after.flags & CKF_USER_PIN_LOCKED)
            pinLocked();
        const QString tries =
            after.flags & CKF_USER_PIN_FINAL_TRY   ? QStringLiteral(" One try left.")
            : after.flags & CKF_USER_PIN_COUNT_LOW ? QStringLiteral(" Few tries left.")
                                                   : QString();
        throw CodedError(error.code(), QStringLiteral("Wrong PIN.") + tries);
    }
    if (m_pinPad)
        m_prompt.hidePinPadNotice();
}

ck_object_handle_t KeySigner::key()
{
    const ck_object_handle_t key = m_found.session->privateKey(m_found.certificate.id);
    if (!key)
        throw CodedError(m_purpose == Purpose::Signing
                             ? QStringLiteral("ERR_VANTRO_NO_SIGNING_CERTIFICATE")
                             : QStringLiteral("ERR_VANTRO_NO_AUTHENTICATION_CERTIFICATE"),
                         QStringLiteral("No private key on the token belongs to the certificate."));
    return key;
}

QList<QByteArray> KeySigner::sign(const QList<QByteArray>& digests, const HashFunction& hash,
                                  Padding padding)
{
    const KeyType type = m_found.certificate.info.keyType;
    if (type == KeyType::Unknown)
        throw CodedError(QStringLiteral("ERR_VANTRO_CARD_UNSUPPORTED"),
                         QStringLiteral("The certificate's key is neither RSA nor EC."));
    if (m_found.session->tokenInfo().flags & CKF_LOGIN_REQUIRED)
        login(CKU_USER);
    const ck_object_handle_t signingKey = key();
    const bool perSignature = m_found.session->alwaysAuthenticate(signingKey);
    QList<QByteArray> signatures;
    for (const QByteArray& digest : digests) {
        SigningInput input = signingInput(type, hash, padding, digest);
        struct ck_mechanism mechanism = {input.mechanism, nullptr, 0};
        if (input.mechanism == CKM_RSA_PKCS_PSS) {
            mechanism.parameter = &input.pss;
            mechanism.parameter_len = sizeof input.pss;
        }
        signatures.append(m_found.session->sign(signingKey, mechanism, input.data,
                                                perSignature ? [this] { login(CKU_CONTEXT_SPECIFIC); }
                                                             : std::function<void()>()));
    }
    return signatures;
}

} // namespace vantro::host
