#pragma once

// A private SoftHSM2 token set up the way a card comes: a signing key whose certificate has
// non-repudiation and an authentication key whose certificate has digital signature and client
// authentication, each with its certificate, made by OpenSSL and written with SoftHSM's and
// OpenSC's tools. SOFTHSM2_CONF points at a temporary folder, so nothing else is touched.
#include <QByteArray>
#include <QDir>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>

namespace vantro::testing {

inline const QString kSoftHsmModule = QStringLiteral("/usr/lib/softhsm/libsofthsm2.so");

// Runs a tool; its output is the failure text when it fails.
inline QString runTool(const QString& program, const QStringList& arguments,
                       const QString& directory = {})
{
    QProcess process;
    process.setWorkingDirectory(directory);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0)
        return program + ": " + QString::fromUtf8(process.readAll()) + process.errorString();
    return {};
}

class SoftHsmToken
{
public:
    // `keyType` is "EC" (P-256) or "RSA" (2048 bits); `withKeys` false leaves the token empty.
    SoftHsmToken(const QString& label, const QString& keyType, const QByteArray& pin,
                 bool withKeys = true)
        : m_pin(pin)
    {
        QDir(m_dir.path()).mkpath("tokens");
        QFile conf(path("softhsm2.conf"));
        if (!conf.open(QIODevice::WriteOnly))
            m_error = "cannot write softhsm2.conf";
        conf.write("directories.tokendir = " + path("tokens").toUtf8() +
                   "\nobjectstore.backend = file\nlog.level = ERROR\n");
        conf.close();
        qputenv("SOFTHSM2_CONF", path("softhsm2.conf").toUtf8());
        step("softhsm2-util",
             {"--init-token", "--free", "--label", label, "--pin", pin, "--so-pin", "5678"});
        if (withKeys) {
            addKey(label, keyType, "sign", "01", {"keyUsage=critical,nonRepudiation"});
            addKey(label, keyType, "auth", "02",
                   {"keyUsage=critical,digitalSignature", "extendedKeyUsage=clientAuth"});
        }
    }

    // Makes this token's configuration the one SoftHSM reads (each token has its own).
    void use() const { qputenv("SOFTHSM2_CONF", path("softhsm2.conf").toUtf8()); }
    QString error() const { return m_error; }
    QString path(const QString& name) const { return m_dir.filePath(name); }
    QByteArray certificate(const QString& name) const
    {
        QFile file(path(name + ".der"));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

private:
    void step(const QString& program, const QStringList& arguments)
    {
        if (m_error.isEmpty())
            m_error = runTool(program, arguments, m_dir.path());
    }
    void addKey(const QString& label, const QString& keyType, const QString& name,
                const QString& id, const QStringList& extensions)
    {
        const QStringList key =
            keyType == "EC" ? QStringList{"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256"}
                            : QStringList{"-newkey", "rsa:2048"};
        QStringList request{"req",         "-x509", "-nodes",           "-days",
                            "30",          "-subj", "/CN=Test " + name, "-keyout",
                            name + ".key", "-out",  name + ".pem"};
        request << key;
        for (const QString& extension : extensions)
            request << "-addext" << extension;
        step("openssl", request);
        step("openssl",
             {"pkcs8", "-topk8", "-nocrypt", "-in", name + ".key", "-out", name + ".p8"});
        step("openssl", {"x509", "-in", name + ".pem", "-outform", "DER", "-out", name + ".der"});
        step("softhsm2-util", {"--import", name + ".p8", "--token", label, "--label", name, "--id",
                               id, "--pin", m_pin});
        step("pkcs11-tool",
             {"--module", kSoftHsmModule, "--token-label", label, "--login", "--pin", m_pin,
              "--write-object", name + ".der", "--type", "cert", "--id", id, "--label", name});
    }

    QTemporaryDir m_dir;
    QByteArray m_pin;
    QString m_error;
};

// Checks `signature` over `digest` with the certificate's public key, as a relying party would:
// ECDSA signatures arrive as raw r||s, RSA ones as PKCS#1 v1.5 or PSS (salt as long as the hash).
inline bool verifySignature(const QByteArray& certificateDer, const QByteArray& digest,
                            const QByteArray& signature, const char* hashName, bool pss = false)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(certificateDer.constData());
    std::unique_ptr<X509, decltype(&X509_free)> certificate(
        d2i_X509(nullptr, &bytes, long(certificateDer.size())), X509_free);
    EVP_PKEY* key = certificate ? X509_get0_pubkey(certificate.get()) : nullptr;
    if (!key)
        return false;
    QByteArray checked = signature;
    if (EVP_PKEY_get_base_id(key) == EVP_PKEY_EC) {
        const int half = int(signature.size() / 2);
        std::unique_ptr<ECDSA_SIG, decltype(&ECDSA_SIG_free)> sig(ECDSA_SIG_new(), ECDSA_SIG_free);
        ECDSA_SIG_set0(
            sig.get(),
            BN_bin2bn(reinterpret_cast<const unsigned char*>(signature.constData()), half, nullptr),
            BN_bin2bn(reinterpret_cast<const unsigned char*>(signature.constData()) + half, half,
                      nullptr));
        unsigned char* der = nullptr;
        const int length = i2d_ECDSA_SIG(sig.get(), &der);
        checked = QByteArray(reinterpret_cast<const char*>(der), length);
        OPENSSL_free(der);
    }
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new(key, nullptr), EVP_PKEY_CTX_free);
    if (EVP_PKEY_verify_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_signature_md(context.get(), EVP_get_digestbyname(hashName)) != 1)
        return false;
    if (pss && (EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PSS_PADDING) != 1 ||
                EVP_PKEY_CTX_set_rsa_pss_saltlen(context.get(), RSA_PSS_SALTLEN_DIGEST) != 1))
        return false;
    return EVP_PKEY_verify(
               context.get(), reinterpret_cast<const unsigned char*>(checked.constData()),
               size_t(checked.size()), reinterpret_cast<const unsigned char*>(digest.constData()),
               size_t(digest.size())) == 1;
}

} // namespace vantro::testing
