#include "SignatureAlgorithms.h"

#include "app/Errors.h"

#include <openssl/evp.h>

namespace vantro::host {

namespace {

QByteArray prefix(const char* hex)
{
    return QByteArray::fromHex(hex);
}

const char* cryptoAlgorithm(KeyType key)
{
    return key == KeyType::Ec ? "ECC" : "RSA";
}

const char* paddingName(Padding padding)
{
    switch (padding) {
    case Padding::Pkcs1:
        return "PKCS1.5";
    case Padding::Pss:
        return "PSS";
    case Padding::None:
        break;
    }
    return "NONE";
}

} // namespace

const QList<HashFunction>& hashFunctions()
{
    static const QList<HashFunction> kHashes{
        {"SHA-224", "SHA224", 28, CKM_SHA224, CKG_MGF1_SHA224,
         prefix("302d300d06096086480165030402040500041c")},
        {"SHA-256", "SHA256", 32, CKM_SHA256, CKG_MGF1_SHA256,
         prefix("3031300d060960864801650304020105000420")},
        {"SHA-384", "SHA384", 48, CKM_SHA384, CKG_MGF1_SHA384,
         prefix("3041300d060960864801650304020205000430")},
        {"SHA-512", "SHA512", 64, CKM_SHA512, CKG_MGF1_SHA512,
         prefix("3051300d060960864801650304020305000440")},
    };
    return kHashes;
}

const HashFunction& hashFunction(const QString& name)
{
    for (const HashFunction& hash : hashFunctions())
        if (name == QLatin1String(hash.name))
            return hash;
    throw CodedError(QStringLiteral("ERR_VANTRO_HASH_FUNCTION_UNSUPPORTED"),
                     QStringLiteral("Unsupported hash function: %1.").arg(name));
}

const HashFunction& hashForEcKey(int bits)
{
    if (bits > 384)
        return hashFunction(QStringLiteral("SHA-512"));
    return hashFunction(bits > 256 ? QStringLiteral("SHA-384") : QStringLiteral("SHA-256"));
}

Padding paddingFor(KeyType key, const QString& requested)
{
    if (key == KeyType::Ec && (requested.isEmpty() || requested == QLatin1String("NONE")))
        return Padding::None;
    if (key == KeyType::Rsa && (requested.isEmpty() || requested == QLatin1String("PKCS1.5")))
        return Padding::Pkcs1;
    if (key == KeyType::Rsa && requested == QLatin1String("PSS"))
        return Padding::Pss;
    throw CodedError(QStringLiteral("ERR_VANTRO_INVALID_ARGUMENT"),
                     QStringLiteral("Padding scheme %1 does not suit this key.").arg(requested));
}

QJsonObject signatureAlgorithm(KeyType key, const HashFunction& hash, Padding padding)
{
    return {{QStringLiteral("cryptoAlgorithm"), QLatin1String(cryptoAlgorithm(key))},
            {QStringLiteral("hashFunction"), QLatin1String(hash.name)},
            {QStringLiteral("paddingScheme"), QLatin1String(paddingName(padding))}};
}

QJsonArray supportedSignatureAlgorithms(KeyType key)
{
    QJsonArray out;
    const QList<Padding> paddings = key == KeyType::Ec
                                        ? QList<Padding>{Padding::None}
                                        : QList<Padding>{Padding::Pkcs1, Padding::Pss};
    for (Padding padding : paddings)
        for (const HashFunction& hash : hashFunctions())
            out.append(signatureAlgorithm(key, hash, padding));
    return out;
}

QString jwsAlgorithm(KeyType key, const HashFunction& hash, Padding padding)
{
    const QString bits = QString::fromLatin1(hash.name).mid(4);
    if (key == KeyType::Ec)
        return QStringLiteral("ES") + bits;
    return (padding == Padding::Pss ? QStringLiteral("PS") : QStringLiteral("RS")) + bits;
}

void checkDigestLength(const HashFunction& hash, const QByteArray& digest)
{
    if (digest.size() != hash.length)
        throw CodedError(QStringLiteral("ERR_VANTRO_INVALID_ARGUMENT"),
                         QStringLiteral("A %1 hash is %2 bytes long, not %3.")
                             .arg(QLatin1String(hash.name))
                             .arg(hash.length)
                             .arg(digest.size()));
}

QByteArray digest(const HashFunction& hash, const QByteArray& data)
{
    QByteArray out(EVP_MAX_MD_SIZE, '\0');
    unsigned int length = 0;
    if (EVP_Digest(data.constData(), size_t(data.size()),
                   reinterpret_cast<unsigned char*>(out.data()), &length,
                   EVP_get_digestbyname(hash.opensslName), nullptr) != 1)
        fail(QStringLiteral("ERR_VANTRO_DIGEST_FAILED"), QLatin1String(hash.name));
    out.resize(int(length));
    return out;
}

SigningInput signingInput(KeyType key, const HashFunction& hash, Padding padding,
                          const QByteArray& digest)
{
    checkDigestLength(hash, digest);
    SigningInput input{CKM_ECDSA, digest, {}};
    if (key == KeyType::Rsa && padding == Padding::Pss) {
        input.mechanism = CKM_RSA_PKCS_PSS;
        input.pss = {hash.mechanism, hash.mgf, static_cast<unsigned long>(hash.length)};
    } else if (key == KeyType::Rsa) {
        input.mechanism = CKM_RSA_PKCS;
        input.data = hash.digestInfoPrefix + digest;
    }
    return input;
}

} // namespace vantro::host
