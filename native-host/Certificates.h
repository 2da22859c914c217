#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

namespace vantro::host {

enum class KeyType { Unknown, Rsa, Ec };

// What the host needs to know of an X.509 certificate, read with OpenSSL.
struct CertificateInfo
{
    bool parsed = false;
    QString subject;
    QString issuer;
    QString notBefore; // ISO 8601, UTC
    QString notAfter;
    QStringList keyUsage;         // "digitalSignature", "nonRepudiation", ...
    QStringList extendedKeyUsage; // "clientAuth", "emailProtection", ...
    bool hasKeyUsage = false;
    KeyType keyType = KeyType::Unknown;
    int keyBits = 0; // RSA modulus or EC field size
};

CertificateInfo describeCertificate(const QByteArray& der);

enum class CertificateRole { Signing, Authentication };

// How well a certificate suits a role: 0 not at all, higher is better. Signing wants
// non-repudiation; authentication wants client authentication or plain digital signature.
int roleFitness(const CertificateInfo& info, CertificateRole role);

} // namespace vantro::host
