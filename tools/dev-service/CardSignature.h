#pragma once

#include <QByteArray>
#include <QString>

namespace vantro::dev {

// Packs a signature made elsewhere (a card or token, through the desktop's card host) into the
// same CMS SignedData as the demo signer's: the document inside, the signer's certificate, and
// the signature over the document's SHA-256 without signed attributes. ECDSA signatures come as
// raw r||s, RSA ones as PKCS#1 v1.5. The package is verified before it is returned; empty with
// `error` set when it does not verify.
QByteArray packCardSignature(const QByteArray& document, const QByteArray& certificateDer,
                             const QByteArray& signature, QString* error);

} // namespace vantro::dev
