#include "platform/SecretStore.h"

#include <QByteArray>

#include <windows.h>

#include <wincrypt.h>

namespace vantro::platform {

namespace {

const QString kPrefix = QStringLiteral("dpapi:");

// Copies a blob that DPAPI allocated and frees it.
QByteArray takeBlob(DATA_BLOB& blob)
{
    QByteArray bytes(reinterpret_cast<const char*>(blob.pbData), static_cast<int>(blob.cbData));
    LocalFree(blob.pbData);
    return bytes;
}

DATA_BLOB blobOf(const QByteArray& bytes)
{
    DATA_BLOB blob;
    blob.cbData = static_cast<DWORD>(bytes.size());
    blob.pbData = reinterpret_cast<BYTE*>(const_cast<char*>(bytes.constData()));
    return blob;
}

class DpapiStore final : public SecretStore
{
public:
    QString protect(const QString& secret) override
    {
        const QByteArray plain = secret.toUtf8();
        DATA_BLOB in = blobOf(plain);
        DATA_BLOB out{};
        if (!CryptProtectData(&in, L"Vantro Sign device secret", nullptr, nullptr, nullptr, 0,
                              &out))
            return {};
        return kPrefix + QString::fromLatin1(takeBlob(out).toBase64());
    }

    QString unprotect(const QString& stored) override
    {
        if (!stored.startsWith(kPrefix))
            return {};
        const auto decoded = QByteArray::fromBase64Encoding(
            stored.mid(kPrefix.size()).toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
        if (!decoded)
            return {};
        DATA_BLOB in = blobOf(*decoded);
        DATA_BLOB out{};
        if (!CryptUnprotectData(&in, nullptr, nullptr, nullptr, nullptr, 0, &out))
            return {};
        return QString::fromUtf8(takeBlob(out));
    }

    // DPAPI keeps nothing outside the stored text.
    void discard(const QString&) override {}
};

} // namespace

SecretStore& systemSecretStore()
{
    static DpapiStore store;
    return store;
}

} // namespace vantro::platform
