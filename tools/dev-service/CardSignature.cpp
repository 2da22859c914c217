#include "CardSignature.h"

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/ecdsa.h>
#include <openssl/err.h>
#include <openssl/x509.h>

#include <memory>

namespace vantro::dev {

namespace {

template <typename T, void (*Free)(T*)>
using Owned = std::unique_ptr<T, std::integral_constant<decltype(Free), Free>>;

const unsigned char* bytes(const QByteArray& data)
{
    return reinterpret_cast<const unsigned char*>(data.constData());
}

// CMS carries ECDSA signatures as DER SEQUENCE {r, s}.
QByteArray ecdsaDer(const QByteArray& raw)
{
    const int half = int(raw.size() / 2);
    Owned<ECDSA_SIG, ECDSA_SIG_free> signature(ECDSA_SIG_new());
    ECDSA_SIG_set0(signature.get(), BN_bin2bn(bytes(raw), half, nullptr),
                   BN_bin2bn(bytes(raw) + half, half, nullptr));
    unsigned char* der = nullptr;
    const int length = i2d_ECDSA_SIG(signature.get(), &der);
    const QByteArray out(reinterpret_cast<const char*>(der), qMax(length, 0));
    OPENSSL_free(der);
    return out;
}

QString opensslError(const char* step)
{
    char text[256] = {};
    ERR_error_string_n(ERR_get_error(), text, sizeof text);
    return QStringLiteral("%1: %2").arg(QLatin1String(step), QLatin1String(text));
}

bool verified(CMS_ContentInfo* cms)
{
    Owned<BIO, BIO_free_all> out(BIO_new(BIO_s_mem()));
    return CMS_verify(cms, nullptr, nullptr, nullptr, out.get(),
                      CMS_NO_SIGNER_CERT_VERIFY | CMS_BINARY) == 1;
}

} // namespace

QByteArray packCardSignature(const QByteArray& document, const QByteArray& certificateDer,
                             const QByteArray& signature, QString* error)
{
    const unsigned char* cursor = bytes(certificateDer);
    Owned<X509, X509_free> certificate(d2i_X509(nullptr, &cursor, long(certificateDer.size())));
    EVP_PKEY* key = certificate ? X509_get0_pubkey(certificate.get()) : nullptr;
    if (!key) {
        *error = QStringLiteral("the certificate cannot be read");
        return {};
    }
    const unsigned flags = CMS_PARTIAL | CMS_BINARY | CMS_NOATTR | CMS_NOSMIMECAP;
    Owned<CMS_ContentInfo, CMS_ContentInfo_free> cms(
        CMS_sign(nullptr, nullptr, nullptr, nullptr, flags));
    // The certificate's public key stands in for the private one: nothing is signed here.
    CMS_SignerInfo* signer =
        cms ? CMS_add1_signer(cms.get(), certificate.get(), key, EVP_sha256(), flags) : nullptr;
    ASN1_OCTET_STRING** content = cms ? CMS_get0_content(cms.get()) : nullptr;
    if (!signer || !content) {
        *error = opensslError("CMS_add1_signer");
        return {};
    }
    if (!*content)
        *content = ASN1_OCTET_STRING_new();
    (*content)->flags &= ~ASN1_STRING_FLAG_CONT;
    const QByteArray packed =
        EVP_PKEY_get_base_id(key) == EVP_PKEY_EC ? ecdsaDer(signature) : signature;
    ASN1_OCTET_STRING_set(*content, bytes(document), int(document.size()));
    ASN1_STRING_set(CMS_SignerInfo_get0_signature(signer), packed.constData(), int(packed.size()));
    if (!verified(cms.get())) {
        *error = opensslError("the signature does not verify");
        return {};
    }
    Owned<BIO, BIO_free_all> out(BIO_new(BIO_s_mem()));
    i2d_CMS_bio(out.get(), cms.get());
    char* data = nullptr;
    const long size = BIO_get_mem_data(out.get(), &data);
    return QByteArray(data, int(size));
}

} // namespace vantro::dev
