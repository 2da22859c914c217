#include "Certificates.h"

#include <QDateTime>

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

namespace vantro::host {

namespace {

using X509Ptr = std::unique_ptr<X509, decltype(&X509_free)>;

QString nameText(const X509_NAME* name)
{
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), BIO_free);
    X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB);
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return QString::fromUtf8(data, int(size));
}

QString timeText(const ASN1_TIME* time)
{
    struct tm parts = {};
    if (!time || ASN1_TIME_to_tm(time, &parts) != 1)
        return {};
    const QDateTime moment(QDate(parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday),
                           QTime(parts.tm_hour, parts.tm_min, parts.tm_sec), Qt::UTC);
    return moment.toString(Qt::ISODate);
}

QStringList flagNames(uint32_t flags, const QList<QPair<uint32_t, const char*>>& names)
{
    QStringList out;
    for (const auto& [bit, name] : names)
        if (flags & bit)
            out << QString::fromLatin1(name);
    return out;
}

void readKey(X509* certificate, CertificateInfo& info)
{
    EVP_PKEY* key = X509_get0_pubkey(certificate);
    if (!key)
        return;
    info.keyBits = EVP_PKEY_get_bits(key);
    if (EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA)
        info.keyType = KeyType::Rsa;
    else if (EVP_PKEY_get_base_id(key) == EVP_PKEY_EC)
        info.keyType = KeyType::Ec;
}

} // namespace

CertificateInfo describeCertificate(const QByteArray& der)
{
    CertificateInfo info;
    const auto* bytes = reinterpret_cast<const unsigned char*>(der.constData());
    X509Ptr certificate(d2i_X509(nullptr, &bytes, long(der.size())), X509_free);
    if (!certificate)
        return info;
    info.parsed = true;
    info.subject = nameText(X509_get_subject_name(certificate.get()));
    info.issuer = nameText(X509_get_issuer_name(certificate.get()));
    info.notBefore = timeText(X509_get0_notBefore(certificate.get()));
    info.notAfter = timeText(X509_get0_notAfter(certificate.get()));
    const uint32_t usage = X509_get_key_usage(certificate.get());
    info.hasKeyUsage = usage != UINT32_MAX;
    if (info.hasKeyUsage)
        info.keyUsage = flagNames(usage, {{KU_DIGITAL_SIGNATURE, "digitalSignature"},
                                          {KU_NON_REPUDIATION, "nonRepudiation"},
                                          {KU_KEY_ENCIPHERMENT, "keyEncipherment"},
                                          {KU_DATA_ENCIPHERMENT, "dataEncipherment"},
                                          {KU_KEY_AGREEMENT, "keyAgreement"},
                                          {KU_KEY_CERT_SIGN, "keyCertSign"},
                                          {KU_CRL_SIGN, "cRLSign"}});
    const uint32_t extended = X509_get_extended_key_usage(certificate.get());
    if (extended != UINT32_MAX)
        info.extendedKeyUsage = flagNames(extended, {{XKU_SSL_SERVER, "serverAuth"},
                                                     {XKU_SSL_CLIENT, "clientAuth"},
                                                     {XKU_SMIME, "emailProtection"},
                                                     {XKU_CODE_SIGN, "codeSigning"},
                                                     {XKU_OCSP_SIGN, "OCSPSigning"},
                                                     {XKU_TIMESTAMP, "timeStamping"}});
    readKey(certificate.get(), info);
    return info;
}

int roleFitness(const CertificateInfo& info, CertificateRole role)
{
    if (!info.parsed || info.keyType == KeyType::Unknown)
        return 0;
    const bool nonRepudiation = info.keyUsage.contains(QLatin1String("nonRepudiation"));
    const bool digitalSignature = info.keyUsage.contains(QLatin1String("digitalSignature"));
    if (role == CertificateRole::Signing) {
        if (nonRepudiation)
            return 2;
        return info.hasKeyUsage ? 0 : 1;
    }
    if (!info.hasKeyUsage)
        return 1;
    if (!digitalSignature)
        return 0;
    if (info.extendedKeyUsage.contains(QLatin1String("clientAuth")))
        return 3;
    return nonRepudiation ? 1 : 2;
}

} // namespace vantro::host
