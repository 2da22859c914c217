#pragma once

#include <QByteArray>
#include <QString>

#include <memory>

// The one place that hashes files and buffers. OpenSSL's EVP digests run several times faster
// than QCryptographicHash on the machines we ship to (hardware SHA extensions), which matters
// for multi-megabyte documents and update installers.
namespace vantro {

// Lower-case hexadecimal SHA-256 of a file, read in 1 MiB chunks.
// Throws "VANTRO_SIGN_LOCAL_FILE_READ_FAILED: <path>" when the file cannot be read.
QString sha256File(const QString& path);

// Raw 64-byte SHA-512 digest of a file; callers comparing with a manifest Base64-encode it.
// Throws like sha256File.
QByteArray sha512File(const QString& path);

// Lower-case hexadecimal SHA-256 of a buffer.
QString sha256Hex(const QByteArray& data);

// SHA-256 of data hashed while it streams elsewhere, so a file that is copied is read once.
class Sha256Stream
{
public:
    Sha256Stream();
    ~Sha256Stream();
    Sha256Stream(const Sha256Stream&) = delete;
    Sha256Stream& operator=(const Sha256Stream&) = delete;

    void update(const char* data, qint64 size);
    // Lower-case hexadecimal digest; ends the stream.
    QString hexDigest();

private:
    class Digest;
    std::unique_ptr<Digest> m_digest;
};

} // namespace vantro
