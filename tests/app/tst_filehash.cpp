// File and buffer digests against published vectors and Qt's independent implementation.
#include "app/Errors.h"
#include "app/FileHash.h"

#include <QCryptographicHash>
#include <QTemporaryDir>
#include <QtTest>

#include <functional>

using namespace vantro;

class FileHashTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    QString writeFile(const QByteArray& content)
    {
        const QString path = m_dir.filePath("data.bin");
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
            file.write(content) != content.size())
            qFatal("cannot write %s", qPrintable(path));
        return path;
    }

    static QString errorOf(const std::function<void()>& call)
    {
        try {
            call();
        } catch (const VantroError& error) {
            return error.text();
        }
        return {};
    }

private Q_SLOTS:
    void knownVectors_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("sha256");
        QTest::addColumn<QByteArray>("sha512Base64");
        QTest::newRow("empty") << QByteArray()
                               << "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"
                               << QByteArray(
                                      "z4PhNX7vuL3xVChQ1m2AB9Yg5AULVxXcg/SpIdNs6c5H0NE8XYXysP+"
                                      "DGNKHfuwvY7kxvUdBeoGlODJ6+SfaPg==");
        QTest::newRow("abc") << QByteArray("abc")
                             << "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"
                             << QByteArray(
                                    "3a81oZNherrMQXNJriBBMRLm+k6JqX6iCp7u5ktV05ohkpkqJ0/BqDa6"
                                    "PCOj/uu9RU1EI2Q86A4qmslPpUyknw==");
    }
    void knownVectors()
    {
        QFETCH(QByteArray, content);
        const QString path = writeFile(content);
        QTEST(sha256File(path), "sha256");
        QTEST(sha256Hex(content), "sha256");
        QTEST(sha512File(path).toBase64(), "sha512Base64");
        Sha256Stream stream; // fed in two pieces, as a copy loop would
        stream.update(content.constData(), content.size() / 2);
        stream.update(content.constData() + content.size() / 2,
                      content.size() - content.size() / 2);
        QTEST(stream.hexDigest(), "sha256");
    }

    // Files are read in 1 MiB chunks: a lost, repeated or misplaced chunk changes the digest.
    void chunkBoundaries()
    {
        for (const qsizetype size : {qsizetype(1) << 20, (qsizetype(3) << 20) + 12345}) {
            QByteArray content(size, Qt::Uninitialized);
            quint32 x = 2463534242u; // xorshift: no two chunks alike
            for (char& byte : content) {
                x ^= x << 13, x ^= x >> 17, x ^= x << 5;
                byte = char(x);
            }
            const QString path = writeFile(content);
            QCOMPARE(sha256File(path),
                     QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex());
            QCOMPARE(sha512File(path),
                     QCryptographicHash::hash(content, QCryptographicHash::Sha512));
        }
    }

    void unreadable()
    {
        const QString folder = m_dir.filePath("folder");
        QVERIFY(QDir().mkpath(folder));
        for (const QString& path : {m_dir.filePath("missing.pdf"), folder}) {
            const QString expected = "VANTRO_SIGN_LOCAL_FILE_READ_FAILED: " + path;
            QCOMPARE(errorOf([&] { sha256File(path); }), expected);
            QCOMPARE(errorOf([&] { sha512File(path); }), expected);
        }
    }
};

QTEST_GUILESS_MAIN(FileHashTest)
#include "tst_filehash.moc"
