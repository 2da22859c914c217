#include "app/FileHash.h"

#include "app/Errors.h"

#include <QFile>

#include <openssl/evp.h>

#include <memory>

namespace vantro {

namespace {

constexpr qint64 kChunkSize = 1 << 20;

struct DigestContextFree
{
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// Incremental EVP digest; any OpenSSL failure is raised as "VANTRO_SIGN_HASH_FAILED".
class Digest
{
public:
    explicit Digest(const EVP_MD* type)
        : m_context(EVP_MD_CTX_new())
    {
        check(m_context && EVP_DigestInit_ex(m_context.get(), type, nullptr) == 1);
    }

    void update(const char* data, qint64 size)
    {
        check(EVP_DigestUpdate(m_context.get(), data, static_cast<size_t>(size)) == 1);
    }

    QByteArray finish()
    {
        unsigned char out[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        check(EVP_DigestFinal_ex(m_context.get(), out, &length) == 1);
        return QByteArray(reinterpret_cast<const char*>(out), static_cast<qsizetype>(length));
    }

private:
    static void check(bool ok)
    {
        if (!ok)
            fail(QStringLiteral("VANTRO_SIGN_HASH_FAILED"), QStringLiteral("OpenSSL digest error"));
    }

    std::unique_ptr<EVP_MD_CTX, DigestContextFree> m_context;
};

QByteArray digestFile(const QString& path, const EVP_MD* type)
{
    const auto readFailed = [&] {
        fail(QStringLiteral("VANTRO_SIGN_LOCAL_FILE_READ_FAILED"), path);
    };
    QFile file(path);
    // Unbuffered: each 1 MiB read goes straight into our buffer instead of through QFile's.
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        readFailed();
    Digest digest(type);
    // Small files get a small buffer: a fresh 1 MiB allocation per file costs more than
    // hashing a document of a few kilobytes.
    const qint64 bufferSize = qBound<qint64>(4096, file.size() + 1, kChunkSize);
    QByteArray buffer(bufferSize, Qt::Uninitialized);
    for (;;) {
        const qint64 read = file.read(buffer.data(), bufferSize);
        if (read < 0)
            readFailed();
        if (read == 0)
            break;
        digest.update(buffer.constData(), read);
    }
    return digest.finish();
}

} // namespace

QString sha256File(const QString& path)
{
    return QString::fromLatin1(digestFile(path, EVP_sha256()).toHex());
}

QByteArray sha512File(const QString& path)
{
    return digestFile(path, EVP_sha512());
}

// The same EVP wrapper the file functions use, fixed to SHA-256.
class Sha256Stream::Digest : public vantro::Digest
{
public:
    Digest()
        : vantro::Digest(EVP_sha256())
    {
    }
};

Sha256Stream::Sha256Stream()
    : m_digest(std::make_unique<Digest>())
{
}

Sha256Stream::~Sha256Stream() = default;

void Sha256Stream::update(const char* data, qint64 size)
{
    m_digest->update(data, size);
}

QString Sha256Stream::hexDigest()
{
    return QString::fromLatin1(m_digest->finish().toHex());
}

QString sha256Hex(const QByteArray& data)
{
    Digest digest(EVP_sha256());
    digest.update(data.constData(), data.size());
    return QString::fromLatin1(digest.finish().toHex());
}

} // namespace vantro
