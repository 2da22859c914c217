// File and buffer digests against published vectors and Qt's own implementation.
#include "app/Errors.h"
#include "app/FileHash.h"

#include <QCryptographicHash>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

using namespace vantro;

namespace {

// Deterministic, non-repeating within a chunk, so a misplaced chunk changes the digest.
QByteArray patterned(qsizetype size)
{
    QByteArray data(size, Qt::Uninitialized);
    quint32 x = 2463534242u;
    for (qsizetype i = 0; i < size; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        data[i] = char(x & 0xff);
    }
    return data;
}

constexpr qsizetype kMiB = 1 << 20;

} // namespace

class FileHashTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;

    QString writeFile(const QByteArray& content)
    {
        const QString path = m_dir.filePath(QStringLiteral("data.bin"));
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
            file.write(content) != content.size())
            qFatal("cannot write %s", qPrintable(path));
        return path;
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
    }

    void matchesQt_data()
    {
        QTest::addColumn<qsizetype>("size");
        QTest::newRow("one byte short of a chunk") << kMiB - 1;
        QTest::newRow("exactly one chunk") << kMiB;
        QTest::newRow("one byte past a chunk") << kMiB + 1;
        QTest::newRow("several chunks with a tail") << 5 * kMiB + 12345;
    }
    void matchesQt()
    {
        QFETCH(qsizetype, size);
        const QByteArray content = patterned(size);
        const QString path = writeFile(content);
        const QString expected = QString::fromLatin1(
            QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex());
        QCOMPARE(sha256File(path), expected);
        QCOMPARE(sha256Hex(content), expected);
        QCOMPARE(sha512File(path), QCryptographicHash::hash(content, QCryptographicHash::Sha512));
    }

    void unreadable_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("asFolder");
        QTest::newRow("missing file") << "missing.pdf" << false;
        QTest::newRow("folder") << "folder" << true;
    }
    void unreadable()
    {
        QFETCH(QString, name);
        QFETCH(bool, asFolder);
        const QString path = m_dir.filePath(name);
        if (asFolder)
            QVERIFY(QDir().mkpath(path));
        for (const auto& hash : {+[](const QString& p) { return sha256File(p).toLatin1(); },
                                 +[](const QString& p) {
                                     return sha512File(p);
                                 }}) {
            try {
                hash(path);
                QFAIL("no error raised");
            } catch (const VantroError& error) {
                QCOMPARE(error.code(), QStringLiteral("VANTRO_SIGN_LOCAL_FILE_READ_FAILED"));
                QCOMPARE(error.text(),
                         QStringLiteral("VANTRO_SIGN_LOCAL_FILE_READ_FAILED: ") + path);
            }
        }
    }

    void unreadablePermissions()
    {
        if (::geteuid() == 0)
            QSKIP("root reads files regardless of their mode");
        const QString path = writeFile("secret");
        QVERIFY(QFile::setPermissions(path, QFileDevice::Permissions()));
        QVERIFY_THROWS_EXCEPTION(VantroError, sha256File(path));
        QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    }
};

QTEST_GUILESS_MAIN(FileHashTest)
#include "tst_filehash.moc"
