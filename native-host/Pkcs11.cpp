#include "Pkcs11.h"

#include "app/Errors.h"

namespace vantro::host {

namespace {

struct Known
{
    ck_rv_t rv;
    const char* name;
    const char* code;
};

// Failures a user can meet and act on; anything else is the module's own business.
constexpr Known kKnown[] = {
    {CKR_PIN_INCORRECT, "CKR_PIN_INCORRECT", "ERR_VANTRO_PIN_INCORRECT"},
    {CKR_PIN_LEN_RANGE, "CKR_PIN_LEN_RANGE", "ERR_VANTRO_PIN_INCORRECT"},
    {CKR_PIN_INVALID, "CKR_PIN_INVALID", "ERR_VANTRO_PIN_INCORRECT"},
    {CKR_PIN_LOCKED, "CKR_PIN_LOCKED", "ERR_VANTRO_PIN_LOCKED"},
    {CKR_PIN_EXPIRED, "CKR_PIN_EXPIRED", "ERR_VANTRO_PIN_LOCKED"},
    {CKR_FUNCTION_CANCELED, "CKR_FUNCTION_CANCELED", "ERR_WEBEID_USER_CANCELLED"},
    {CKR_TOKEN_NOT_PRESENT, "CKR_TOKEN_NOT_PRESENT", "PKCS11_TOKEN_REMOVED"},
    {CKR_DEVICE_REMOVED, "CKR_DEVICE_REMOVED", "PKCS11_TOKEN_REMOVED"},
    {CKR_SESSION_HANDLE_INVALID, "CKR_SESSION_HANDLE_INVALID", "PKCS11_TOKEN_REMOVED"},
    {CKR_SESSION_CLOSED, "CKR_SESSION_CLOSED", "PKCS11_TOKEN_REMOVED"},
    {CKR_MECHANISM_INVALID, "CKR_MECHANISM_INVALID", "ERR_VANTRO_CARD_UNSUPPORTED"},
    {CKR_MECHANISM_PARAM_INVALID, "CKR_MECHANISM_PARAM_INVALID", "ERR_VANTRO_CARD_UNSUPPORTED"},
    {CKR_KEY_TYPE_INCONSISTENT, "CKR_KEY_TYPE_INCONSISTENT", "ERR_VANTRO_CARD_UNSUPPORTED"},
    {CKR_KEY_FUNCTION_NOT_PERMITTED, "CKR_KEY_FUNCTION_NOT_PERMITTED",
     "ERR_VANTRO_CARD_UNSUPPORTED"},
    {CKR_DATA_LEN_RANGE, "CKR_DATA_LEN_RANGE", "ERR_VANTRO_CARD_UNSUPPORTED"},
    {CKR_DEVICE_ERROR, "CKR_DEVICE_ERROR", "ERR_VANTRO_PKCS11_FAILED"},
    {CKR_GENERAL_ERROR, "CKR_GENERAL_ERROR", "ERR_VANTRO_PKCS11_FAILED"},
    {CKR_USER_NOT_LOGGED_IN, "CKR_USER_NOT_LOGGED_IN", "ERR_VANTRO_PKCS11_FAILED"},
};

const Known* known(ck_rv_t rv)
{
    for (const Known& entry : kKnown)
        if (entry.rv == rv)
            return &entry;
    return nullptr;
}

} // namespace

QString returnValueName(ck_rv_t rv)
{
    if (const Known* entry = known(rv))
        return QString::fromLatin1(entry->name);
    return QStringLiteral("CKR 0x%1").arg(qulonglong(rv), 0, 16);
}

QString failureCode(ck_rv_t rv)
{
    const Known* entry = known(rv);
    return QString::fromLatin1(entry ? entry->code : "ERR_VANTRO_PKCS11_FAILED");
}

void check(ck_rv_t rv, const char* function)
{
    if (rv == CKR_OK)
        return;
    const QString code = failureCode(rv);
    QString message = QStringLiteral("%1 failed with %2.")
                          .arg(QString::fromLatin1(function), returnValueName(rv));
    if (code == QLatin1String("PKCS11_TOKEN_REMOVED"))
        message = QStringLiteral("The card or token was removed (%1).").arg(returnValueName(rv));
    throw CodedError(code, message);
}

} // namespace vantro::host
