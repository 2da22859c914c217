#pragma once

// The raw PKCS#11 interface, with p11-kit's GNU names: its compatibility names are macros
// ("value", "label") that would rewrite ordinary identifiers in any file including this one.
#define CRYPTOKI_GNU 1
#include <p11-kit/pkcs11.h>

#include <QByteArray>
#include <QString>

namespace vantro::host {

// "CKR_PIN_INCORRECT" and the like, or the hexadecimal value for one not listed.
QString returnValueName(ck_rv_t rv);

// The answer code a PKCS#11 failure reaches the page with: a removed token, a cancelled PIN
// pad, a wrong or locked PIN, a key or mechanism the token does not offer, or the general
// "ERR_VANTRO_PKCS11_FAILED".
QString failureCode(ck_rv_t rv);

// Throws the CodedError for `rv` unless it is CKR_OK; `function` names the call in the message.
void check(ck_rv_t rv, const char* function);

// A fixed-width, space-padded PKCS#11 text field, trimmed.
template <size_t N> QString fieldText(const unsigned char (&field)[N])
{
    return QString::fromUtf8(reinterpret_cast<const char*>(field), int(N)).trimmed();
}

} // namespace vantro::host
