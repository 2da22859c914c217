#pragma once

#include <QByteArray>
#include <QString>

namespace vantro::dev {

// The stand-in's signatures: a demo key and self-signed certificate made with OpenSSL at the
// first start, kept in the data folder, and CMS SignedData with the document inside (".p7m",
// DER), which `openssl cms -verify -inform DER -in X.p7m -CAfile demo-signer.pem` accepts and
// unpacks.
class DemoSigner
{
public:
    explicit DemoSigner(const QString& dataDir);

    // Makes the key and certificate when they are missing; false when OpenSSL failed.
    bool ensureKey(QString* error);
    QString certificatePath() const;
    // The signed package, or empty with `error` set.
    QByteArray sign(const QByteArray& document, QString* error) const;

private:
    QString m_dir;
};

} // namespace vantro::dev
