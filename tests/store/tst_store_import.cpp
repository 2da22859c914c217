// Import of local files: limits, placement in the local root, naming, atomicity.
#include "StoreTestSupport.h"

#include <QCryptographicHash>
#include <QtTest>

using namespace vantro;
using storetest::codeOf;
using storetest::errorOf;
using storetest::RawDatabase;
using storetest::StoreFixture;

namespace {

QString month()
{
    return QDate::currentDate().toString(QStringLiteral("yyyy-MM"));
}

QString originals(const QString& name)
{
    return QStringLiteral("Originalai/%1/%2").arg(month(), name);
}

QString referenceSha256(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QCryptographicHash hash(QCryptographicHash::Sha256);
    hash.addData(&file);
    return QString::fromLatin1(hash.result().toHex());
}

int rowCount(const StoreFixture& fx, const char* table)
{
    RawDatabase raw(fx.dbPath());
    return raw.scalar(QStringLiteral("SELECT COUNT(*) FROM %1").arg(QLatin1String(table))).toInt();
}

} // namespace

class StoreImportTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void limits_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<qint64>("size"); // -1: no file, -2: a folder
        QTest::addColumn<QString>("code");

        QTest::newRow("exactly 50 MiB") << "big.pdf" << qint64(52428800) << "";
        QTest::newRow("one byte more")
            << "big.pdf" << qint64(52428801) << "VANTRO_SIGN_IMPORT_TOO_LARGE";
        QTest::newRow("zero bytes is not ready")
            << "empty.pdf" << qint64(0) << "VANTRO_SIGN_IMPORT_FILE_NOT_READY";
        QTest::newRow("empty presentation: size checked before type")
            << "empty.pptx" << qint64(0) << "VANTRO_SIGN_IMPORT_FILE_NOT_READY";
        QTest::newRow("oversized presentation: size checked before type")
            << "big.pptx" << qint64(52428801) << "VANTRO_SIGN_IMPORT_TOO_LARGE";
        QTest::newRow("presentation")
            << "slides.pptx" << qint64(10) << "VANTRO_SIGN_IMPORT_UNSUPPORTED_TYPE";
        QTest::newRow("upper-case suffix accepted") << "A.PDF" << qint64(10) << "";
        QTest::newRow("one byte") << "a.txt" << qint64(1) << "";
        QTest::newRow("missing file")
            << "gone.pdf" << qint64(-1) << "VANTRO_SIGN_IMPORT_REQUIRES_FILE";
        QTest::newRow("folder named like a document")
            << "folder.pdf" << qint64(-2) << "VANTRO_SIGN_IMPORT_REQUIRES_FILE";
    }
    void limits()
    {
        QFETCH(QString, name);
        QFETCH(qint64, size);
        QFETCH(QString, code);
        StoreFixture fx;
        const QString source = fx.path(QStringLiteral("outside/") + name);
        if (size >= 0)
            QVERIFY(!fx.writeFile(QStringLiteral("outside/") + name, size).isEmpty());
        if (size == -2)
            QVERIFY(QDir().mkpath(source));
        auto store = fx.makeStore();
        QJsonArray results;
        const QString error = errorOf([&] { results = store->importFiles({source}); });
        QCOMPARE(vantro::splitErrorText(error, QString()).code, code);
        if (!code.isEmpty()) {
            QVERIFY2(error.contains(source), qPrintable(error));
            QCOMPARE(rowCount(fx, "local_documents"), 0);
            QVERIFY(!QFileInfo::exists(fx.root() + QStringLiteral("/Originalai")));
            return;
        }
        QCOMPARE(results.size(), 1);
        const QJsonObject result = results.at(0).toObject();
        QCOMPARE(result.value(QStringLiteral("size")).toInteger(), size);
        QCOMPARE(result.value(QStringLiteral("relativePath")).toString(), originals(name));
        QCOMPARE(QFileInfo(fx.root() + QLatin1Char('/') + originals(name)).size(), size);
        QCOMPARE(rowCount(fx, "local_documents"), 1);
    }

    void pathCountLimits()
    {
        StoreFixture fx;
        QStringList paths;
        for (int i = 0; i < 101; ++i)
            paths << fx.writeFile(QStringLiteral("outside/f%1.pdf").arg(i));
        auto store = fx.makeStore();
        store->open();
        QCOMPARE(codeOf([&] { store->importFiles(paths); }),
                 QStringLiteral("VANTRO_SIGN_IMPORT_TOO_MANY_FILES"));
        QVERIFY(!QFileInfo::exists(fx.root() + QStringLiteral("/Originalai")));
        QCOMPARE(rowCount(fx, "local_documents"), 0);

        QCOMPARE(codeOf([&] { store->importFiles({}); }),
                 QStringLiteral("VANTRO_SIGN_IMPORT_FILES_REQUIRED"));

        // The limit is on the list as passed; duplicates among 100 entries still count.
        QStringList hundred;
        for (int i = 0; i < 100; ++i)
            hundred << paths.at(i % 2);
        QCOMPARE(store->importFiles(hundred).size(), 2);
    }

    void duplicatesDifferingInCaseImportOnce()
    {
        StoreFixture fx;
        const QString source = fx.writeFile(QStringLiteral("outside/Sutartis.pdf"));
        const QString shouted = fx.path(QStringLiteral("OUTSIDE/SUTARTIS.PDF"));
        auto store = fx.makeStore();
        const QJsonArray results =
            store->importFiles({source, shouted, source + QStringLiteral(" ")});
        QCOMPARE(results.size(), 1);
        QCOMPARE(results.at(0).toObject().value(QStringLiteral("sourcePath")).toString(), source);
        QCOMPARE(rowCount(fx, "local_documents"), 1);
    }

    void placement_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<QString>("relativePath");

        QTest::newRow("outside the root is copied")
            << "outside/Sutartis.pdf" << originals("Sutartis.pdf");
        QTest::newRow("directly in the root stays") << "root/Sutartis.pdf"
                                                    << "Sutartis.pdf";
        QTest::newRow("nested in the root stays") << "root/Projektai/2026/Sutartis.pdf"
                                                  << "Projektai/2026/Sutartis.pdf";
        QTest::newRow("an earlier copy stays") << "root/Originalai/2020-01/Sutartis.pdf"
                                               << "Originalai/2020-01/Sutartis.pdf";
        QTest::newRow("signed folder is copied")
            << "root/Pasirasyta/Sutartis.pdf" << originals("Sutartis.pdf");
        QTest::newRow("deleted folder is copied")
            << "root/Istrinta/2025-12/Sutartis.pdf" << originals("Sutartis.pdf");
        QTest::newRow("cache folder is copied")
            << "root/Projektai/cache/Sutartis.pdf" << originals("Sutartis.pdf");
        QTest::newRow("name with two leading dots counts as outside")
            << "root/..Sutartis.pdf" << originals("..Sutartis.pdf");
        QTest::newRow("copy gets a cleaned name")
            << "outside/a:b?c .pdf" << originals("a_b_c .pdf");
    }
    void placement()
    {
        QFETCH(QString, source);
        QFETCH(QString, relativePath);
        StoreFixture fx;
        const QString path = fx.writeFile(source);
        auto store = fx.makeStore();
        const QJsonObject result = store->importFiles({path}).at(0).toObject();
        QCOMPARE(result.value(QStringLiteral("relativePath")).toString(), relativePath);
        const QString registered = fx.root() + QLatin1Char('/') + relativePath;
        QVERIFY(QFileInfo(registered).isFile());
        QVERIFY(QFileInfo(path).isFile());
        const bool copied = relativePath.startsWith(QStringLiteral("Originalai/") + month());
        QCOMPARE(QFileInfo::exists(fx.root() + QLatin1Char('/') + originals(QString())), copied);
        QCOMPARE(result.value(QStringLiteral("name")).toString(), QFileInfo(registered).fileName());
        const QJsonObject version =
            store->getVersion(result.value(QStringLiteral("versionId")).toString());
        QCOMPARE(version.value(QStringLiteral("path")).toString(), registered);
        QCOMPARE(version.value(QStringLiteral("relative_path")).toString(), relativePath);
    }

    void sameFileTwiceInOneMonth()
    {
        StoreFixture fx;
        const QString source = fx.writeFile(QStringLiteral("outside/Sutartis.pdf"));
        auto store = fx.makeStore();
        const QJsonObject first = store->importFiles({source}).at(0).toObject();
        const QJsonObject second = store->importFiles({source}).at(0).toObject();
        QCOMPARE(first.value(QStringLiteral("relativePath")).toString(), originals("Sutartis.pdf"));
        QCOMPARE(second.value(QStringLiteral("relativePath")).toString(),
                 originals("Sutartis_2.pdf"));
        QVERIFY(first.value(QStringLiteral("documentId")) !=
                second.value(QStringLiteral("documentId")));
        QCOMPARE(store->listDocuments({}).size(), 2);
        QCOMPARE(store->getDocument(second.value(QStringLiteral("documentId")).toString())
                     .value(QStringLiteral("title"))
                     .toString(),
                 QStringLiteral("Sutartis_2"));
    }

    void resultAndRows_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("mimeType");

        QTest::newRow("pdf") << "Sutartis.signed.pdf" << QByteArray("%PDF-1.4\n%%EOF\n")
                             << "application/pdf";
        QTest::newRow("text") << "notes.txt" << QByteArray("labas\n") << "text/plain";
        QTest::newRow("png") << "scan.png"
                             << QByteArray::fromHex("89504e470d0a1a0a0000000d49484452")
                             << "image/png";
    }
    void resultAndRows()
    {
        QFETCH(QString, name);
        QFETCH(QByteArray, content);
        QFETCH(QString, mimeType);
        StoreFixture fx;
        const QString source =
            fx.writeFile(QStringLiteral("outside/") + name, content.size(), content);
        auto store = fx.makeStore();
        const QJsonObject result = store->importFiles({source}).at(0).toObject();
        QStringList keys = result.keys();
        QCOMPARE(keys, (QStringList{"documentId", "mimeType", "name", "ok", "relativePath",
                                    "sha256", "size", "sourcePath", "versionId"}));
        QCOMPARE(result.value(QStringLiteral("ok")), QJsonValue(true));
        QCOMPARE(result.value(QStringLiteral("sourcePath")).toString(), source);
        QCOMPARE(result.value(QStringLiteral("sha256")).toString(), referenceSha256(source));
        const QString copy =
            fx.root() + QLatin1Char('/') + result.value(QStringLiteral("relativePath")).toString();
        QCOMPARE(referenceSha256(copy), referenceSha256(source));
        QCOMPARE(result.value(QStringLiteral("mimeType")).toString(), mimeType);
        QCOMPARE(result.value(QStringLiteral("size")).toInteger(), content.size());

        const QJsonObject document =
            store->getDocument(result.value(QStringLiteral("documentId")).toString());
        QCOMPARE(document.value(QStringLiteral("current_version_id")),
                 result.value(QStringLiteral("versionId")));
        QCOMPARE(document.value(QStringLiteral("status")).toString(), QStringLiteral("LOCAL"));
        QCOMPARE(document.value(QStringLiteral("source")).toString(),
                 QStringLiteral("LOCAL_IMPORT"));
        QCOMPARE(document.value(QStringLiteral("original_name")).toString(), name);
        QCOMPARE(document.value(QStringLiteral("title")).toString(),
                 name.section(QLatin1Char('.'), 0, 0));
        const QJsonObject version = document.value(QStringLiteral("current_version")).toObject();
        QCOMPARE(version.value(QStringLiteral("kind")).toString(), QStringLiteral("ORIGINAL"));
        QCOMPARE(version.value(QStringLiteral("sha256")), result.value(QStringLiteral("sha256")));
        QCOMPARE(version.value(QStringLiteral("mime_type")),
                 result.value(QStringLiteral("mimeType")));
        QCOMPARE(version.value(QStringLiteral("size_bytes")).toInteger(), content.size());
    }

    void sourceIsNeverChanged()
    {
        StoreFixture fx;
        const QString source =
            fx.writeFile(QStringLiteral("outside/Sutartis.pdf"), 300000, QByteArray(300000, 'x'));
        QVERIFY(QFile::setPermissions(source, QFileDevice::ReadOwner | QFileDevice::ReadUser));
        QFile touch(source);
        QVERIFY(touch.open(QIODevice::ReadOnly));
        QVERIFY(touch.setFileTime(QDateTime(QDate(2024, 5, 6), QTime(7, 8, 9), Qt::UTC),
                                  QFileDevice::FileModificationTime));
        touch.close();
        const QFileInfo before(source);
        const QString hash = referenceSha256(source);

        auto store = fx.makeStore();
        store->importFiles({source});
        const QFileInfo after(source);
        QVERIFY(after.exists());
        QCOMPARE(referenceSha256(source), hash);
        QCOMPARE(after.size(), before.size());
        QCOMPARE(after.lastModified().toMSecsSinceEpoch(),
                 before.lastModified().toMSecsSinceEpoch());
        QCOMPARE(after.permissions(), before.permissions());
        QCOMPARE(QDir(fx.path(QStringLiteral("outside"))).entryList(QDir::Files),
                 QStringList{"Sutartis.pdf"});
    }

    void failureAfterCopyLeavesCopyAndNoRow()
    {
        StoreFixture fx;
        const QString source = fx.writeFile(QStringLiteral("outside/Sutartis.pdf"));
        auto store = fx.makeStore();
        store->open();
        {
            RawDatabase raw(fx.dbPath());
            QVERIFY(
                raw.statement(QStringLiteral("CREATE TRIGGER full BEFORE INSERT ON local_versions "
                                             "BEGIN SELECT RAISE(ABORT, 'disk full'); END")));
        }
        QVERIFY(
            errorOf([&] { store->importFiles({source}); }).contains(QLatin1String("disk full")));
        QVERIFY(QFileInfo(fx.root() + QLatin1Char('/') + originals("Sutartis.pdf")).isFile());
        QCOMPARE(rowCount(fx, "local_documents"), 0);
        QCOMPARE(rowCount(fx, "local_versions"), 0);
    }

    void unwritableTargetFailsAsCopyFailure()
    {
        StoreFixture fx;
        const QString source = fx.writeFile(QStringLiteral("outside/a.pdf"));
        // A file where the Originalai folder should be: nothing can be copied below it.
        QVERIFY(!fx.writeFile(QStringLiteral("root/Originalai")).isEmpty());
        auto store = fx.makeStore();
        QCOMPARE(codeOf([&] { store->importFiles({source}); }),
                 QStringLiteral("VANTRO_SIGN_IMPORT_COPY_FAILED"));
        QCOMPARE(rowCount(fx, "local_documents"), 0);
        QVERIFY(QFileInfo(source).isFile());
    }

    void firstFailureStopsTheCall()
    {
        StoreFixture fx;
        const QString good = fx.writeFile(QStringLiteral("outside/a.pdf"));
        const QString bad = fx.writeFile(QStringLiteral("outside/b.pptx"));
        const QString later = fx.writeFile(QStringLiteral("outside/c.pdf"));
        auto store = fx.makeStore();
        QCOMPARE(codeOf([&] {
                     store->importFiles({good, bad, later});
                 }),
                 QStringLiteral("VANTRO_SIGN_IMPORT_UNSUPPORTED_TYPE"));
        QCOMPARE(rowCount(fx, "local_documents"), 1);
        QVERIFY(QFileInfo::exists(fx.root() + QLatin1Char('/') + originals("a.pdf")));
        QVERIFY(!QFileInfo::exists(fx.root() + QLatin1Char('/') + originals("c.pdf")));
    }

    void withoutRootNothingIsWritten()
    {
        StoreFixture fx;
        const QString source = fx.writeFile(QStringLiteral("outside/a.pdf"));
        LocalStore store(nullptr, fx.dbPath());
        QCOMPARE(codeOf([&] { store.importFiles({source}); }),
                 QStringLiteral("VANTRO_SIGN_LOCAL_ROOT_MISSING"));
        QVERIFY(!QFileInfo::exists(QDir::current().filePath(QStringLiteral("Originalai"))));
        QCOMPARE(rowCount(fx, "local_documents"), 0);
    }
};

QTEST_GUILESS_MAIN(StoreImportTest)
#include "tst_store_import.moc"
