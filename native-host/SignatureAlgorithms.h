#pragma once

#include "Certificates.h"
#include "Pkcs11.h"

#include <QJsonArray>
#include <QJsonObject>

namespace vantro::host {

// A hash function the page may name, with what each mechanism needs of it.
struct HashFunction
{
    const char* name;              // "SHA-256"
    const char* opensslName;       // "SHA256"
    int length;                    // bytes of a digest
    ck_mechanism_type_t mechanism; // for RSA-PSS parameters
    unsigned long mgf;             // MGF1 with the same hash
    QByteArray digestInfoPrefix;   // DER DigestInfo up to the digest, for RSA PKCS#1 v1.5
};

// Throws "ERR_VANTRO_HASH_FUNCTION_UNSUPPORTED" for a name not listed.
const HashFunction& hashFunction(const QString& name);
// The hash that goes with an EC key of `bits`, as web-eID pairs them (P-256 with SHA-256...).
const HashFunction& hashForEcKey(int bits);
const QList<HashFunction>& hashFunctions();

enum class Padding { None, Pkcs1, Pss };
// "PKCS1.5" (also the default for RSA when empty), "PSS", or "NONE" for EC keys; anything else
// throws "ERR_VANTRO_INVALID_ARGUMENT".
Padding paddingFor(KeyType key, const QString& requested);

// {cryptoAlgorithm, hashFunction, paddingScheme} objects.
QJsonObject signatureAlgorithm(KeyType key, const HashFunction& hash, Padding padding);
QJsonArray supportedSignatureAlgorithms(KeyType key);
// The JWS name of an authentication signature ("ES256", "RS256", "PS256").
QString jwsAlgorithm(KeyType key, const HashFunction& hash, Padding padding);

// The token mechanism for a key and padding, with what it signs over a digest.
struct SigningInput
{
    ck_mechanism_type_t mechanism;
    QByteArray data;
    struct ck_rsa_pkcs_pss_params pss; // used for CKM_RSA_PKCS_PSS
};
// Throws "ERR_VANTRO_INVALID_ARGUMENT" unless `digest` is as long as `hash` makes them.
void checkDigestLength(const HashFunction& hash, const QByteArray& digest);

// The digest of `data` with `hash`, made by libcrypto.
QByteArray digest(const HashFunction& hash, const QByteArray& data);

SigningInput signingInput(KeyType key, const HashFunction& hash, Padding padding,
                          const QByteArray& digest);

} // namespace vantro::host
