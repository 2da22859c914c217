#pragma once

#include "SignatureAlgorithms.h"
#include "Token.h"

namespace vantro::host {

class PinPrompt;

// Signs with the private key of a found certificate: logs in once (the PIN dialog, or the
// reader's PIN pad), then signs every digest, logging in again per signature only for keys
// that demand it, with the same PIN. The PIN is wiped when the signer is done.
class KeySigner
{
public:
    enum class Purpose { Signing, Authentication };
    KeySigner(const Middleware::Found& found, PinPrompt& prompt, Purpose purpose);
    ~KeySigner();
    KeySigner(const KeySigner&) = delete;
    KeySigner& operator=(const KeySigner&) = delete;

    QList<QByteArray> sign(const QList<QByteArray>& digests, const HashFunction& hash,
                           Padding padding);

private:
    void login(unsigned long userType);
    ck_object_handle_t key();

    const Middleware::Found& m_found;
    PinPrompt& m_prompt;
    Purpose m_purpose;
    QByteArray m_pin;
    bool m_pinPad = false;
};

} // namespace vantro::host
