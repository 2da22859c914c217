// Import of local files: limits, placement in the local root, naming, atomicity.
#include "StoreTestSupport.h"

#include <QCryptographicHash>

using namespace vantro;
using namespace storetest;

namespace {

QString originals(const QString& name)
{
    return QStringLiteral("Originalai/%1/%2").arg(QDate::currentDate().toString("yyyy-MM"), name);
}

// Content, size, modification time and permissions: what an import must never change.
QString fingerprint(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QFileInfo info(path);
    return QString::fromLatin1(
               QCryptographicHash::hash(file.readAll(), QCryptographicHash::Sha256).toHex()) +
           QStringLiteral("|%1|%2|%3")
               .arg(info.size())
               .arg(info.lastModified().toMSecsSinceEpoch())
               .arg(int(info.permissions()));
}

int documents(const StoreFixture& fx)
{
    return RawDatabase(fx.dbPath()).count("local_documents");
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
        const auto row = [](const char* name, const char* file, qint64 size, const char* code) {
            QTest::newRow(name) << file << size << code;
        };
        row("exactly 50 MiB", "big.pdf", 52428800, "");
        row("one byte more", "big.pdf", 52428801, "VANTRO_SIGN_IMPORT_TOO_LARGE");
        row("zero bytes is not ready", "empty.pdf", 0, "VANTRO_SIGN_IMPORT_FILE_NOT_READY");
        row("size checked before type", "empty.pptx", 0, "VANTRO_SIGN_IMPORT_FILE_NOT_READY");
        row("one byte", "a.txt", 1, "");
        row("presentation", "slides.pptx", 10, "VANTRO_SIGN_IMPORT_UNSUPPORTED_TYPE");
        row("upper-case suffix accepted", "A.PDF", 10, "");
        row("missing file", "gone.pdf", -1, "VANTRO_SIGN_IMPORT_REQUIRES_FILE");
        row("folder named like a document", "dir.pdf", -2, "VANTRO_SIGN_IMPORT_REQUIRES_FILE");
    }
    void limits()
    {
        QFETCH(QString, name);
        QFETCH(qint64, size);
        QFETCH(QString, code);
        StoreFixture fx;
        const QString source = fx.path("outside/" + name);
        QVERIFY(size < 0 || fx.writeFile("outside/" + name, size) == source);
        QVERIFY(size != -2 || QDir().mkpath(source));
        QJsonArray results;
        const QString error = errorOf([&] { results = fx.makeStore()->importFiles({source}); });
        QCOMPARE(splitErrorText(error, QString()).code, code);
        QVERIFY2(code.isEmpty() || error.contains(source), qPrintable(error));
        QCOMPARE(documents(fx), code.isEmpty() ? 1 : 0);
        QCOMPARE(QFileInfo(fx.inRoot(originals(name))).size(), code.isEmpty() ? size : 0);
        QCOMPARE(results.at(0)["size"].toInteger(), code.isEmpty() ? size : 0);
    }

    void pathLists()
    {
        StoreFixture fx;
        QStringList paths;
        for (int i = 0; i < 101; ++i)
            paths << fx.writeFile(QStringLiteral("outside/f%1.pdf").arg(i));
        auto store = fx.makeStore();
        QCOMPARE(codeOf([&] { store->importFiles(paths); }), "VANTRO_SIGN_IMPORT_TOO_MANY_FILES");
        QVERIFY(!QFileInfo::exists(fx.inRoot("Originalai")));
        QCOMPARE(codeOf([&] { store->importFiles({}); }), "VANTRO_SIGN_IMPORT_FILES_REQUIRED");
        QCOMPARE(documents(fx), 0);
        // Duplicates differ in letter case or trailing space; the first spelling is kept.
        const QString upper = fx.path("OUTSIDE/F0.PDF");
        const QJsonArray results = store->importFiles({paths[0], upper, paths[0] + ' ', paths[1]});
        QCOMPARE(column(results, "sourcePath"), (QStringList{paths[0], paths[1]}));
        // The first failure stops the call; earlier files stay imported.
        const QString bad = fx.writeFile("outside/b.pptx");
        QCOMPARE(codeOf([&] {
                     store->importFiles({paths[2], bad, paths[3]});
                 }),
                 "VANTRO_SIGN_IMPORT_UNSUPPORTED_TYPE");
        QCOMPARE(documents(fx), 3);
        QVERIFY(!QFileInfo::exists(fx.inRoot(originals("f3.pdf"))));
    }

    void placement_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<QString>("relativePath");
        QTest::addColumn<QString>("mimeType");
        const auto row = [](const char* name, const char* source, const QString& relative,
                            const char* mime = "application/pdf") {
            QTest::newRow(name) << source << relative << mime;
        };
        row("outside the root is copied", "outside/Sutartis.signed.pdf",
            originals("Sutartis.signed.pdf"));
        row("text file outside", "outside/notes.txt", originals("notes.txt"), "text/plain");
        row("directly in the root stays", "root/Sutartis.pdf", "Sutartis.pdf");
        row("nested in the root stays", "root/Projektai/2026/a.pdf", "Projektai/2026/a.pdf");
        row("signed folder is copied", "root/Pasirasyta/Sutartis.pdf", originals("Sutartis.pdf"));
        row("cache folder is copied", "root/Projektai/cache/a.pdf", originals("a.pdf"));
        row("two leading dots is outside", "root/..Sutartis.pdf", originals("..Sutartis.pdf"));
        row("copy gets a cleaned name", "outside/a:b?c .pdf", originals("a_b_c .pdf"));
    }
    void placement()
    {
        QFETCH(QString, source);
        QFETCH(QString, relativePath);
        QFETCH(QString, mimeType);
        StoreFixture fx;
        const QByteArray content = source.endsWith(".txt") ? "labas\n" : "%PDF-1.4\n%%EOF\n";
        const QString path = fx.writeFile(source, content.size(), content);
        // Read-only: an import that opened the source for writing would fail.
        QVERIFY(QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::ReadUser));
        const QString before = fingerprint(path);
        auto store = fx.makeStore();
        const QJsonObject result = store->importFiles({path}).at(0).toObject();
        QCOMPARE(fingerprint(path), before);
        const QString registered = fx.inRoot(relativePath);
        QCOMPARE(fingerprint(registered).section('|', 0, 1), before.section('|', 0, 1));
        QCOMPARE(QFileInfo::exists(fx.inRoot(originals({}))),
                 relativePath.startsWith("Originalai/"));
        QCOMPARE(result.keys(), (QStringList{"documentId", "mimeType", "name", "ok", "relativePath",
                                             "sha256", "size", "sourcePath", "versionId"}));
        QCOMPARE(fields(result, "ok sourcePath relativePath name size mimeType sha256"),
                 QStringList({"true", path, relativePath, QFileInfo(registered).fileName(),
                              QString::number(content.size()), mimeType, before.section('|', 0, 0)})
                     .join('|'));
        const QJsonObject document = store->getDocument(str(result, "documentId"));
        QCOMPARE(fields(document, "current_version_id status source local_state original_name"),
                 fields(result, "versionId") + "|LOCAL|LOCAL_IMPORT|LOCAL_ONLY|" +
                     str(result, "name"));
        QCOMPARE(fields(document.value("current_version").toObject(),
                        "kind path relative_path sha256 size_bytes mime_type"),
                 QStringList({"ORIGINAL", registered, relativePath, str(result, "sha256"),
                              QString::number(content.size()), mimeType})
                     .join('|'));
    }

    void sameFileTwiceInOneMonth()
    {
        StoreFixture fx;
        const QString source = fx.writeFile("outside/Sutartis.pdf");
        auto store = fx.makeStore();
        const QJsonObject first = store->importFiles({source}).at(0).toObject();
        const QJsonObject second = store->importFiles({source}).at(0).toObject();
        QCOMPARE(str(first, "relativePath"), originals("Sutartis.pdf"));
        QCOMPARE(str(second, "relativePath"), originals("Sutartis_2.pdf"));
        QVERIFY(str(first, "documentId") != str(second, "documentId"));
        QCOMPARE(str(store->getDocument(str(second, "documentId")), "title"), "Sutartis_2");
    }

    void failureAfterCopyLeavesCopyAndNoRow()
    {
        StoreFixture fx;
        const QString source = fx.writeFile("outside/Sutartis.pdf");
        auto store = fx.makeStore();
        store->open();
        QVERIFY(RawDatabase(fx.dbPath())
                    .exec(QStringLiteral("CREATE TRIGGER full BEFORE INSERT ON local_versions "
                                         "BEGIN SELECT RAISE(ABORT, 'disk full'); END")));
        QVERIFY(errorOf([&] { store->importFiles({source}); }).contains("disk full"));
        QVERIFY(QFileInfo(fx.inRoot(originals("Sutartis.pdf"))).isFile());
        QCOMPARE(documents(fx), 0);
    }

    void copyFailures()
    {
        StoreFixture fx;
        const QString source = fx.writeFile("outside/a.pdf");
        // A file where the Originalai folder should be: nothing can be copied below it.
        fx.writeFile("root/Originalai");
        QCOMPARE(codeOf([&] { fx.makeStore()->importFiles({source}); }),
                 "VANTRO_SIGN_IMPORT_COPY_FAILED");
        // Without a configured root nothing is written anywhere.
        QCOMPARE(codeOf([&] { LocalStore(nullptr, fx.dbPath()).importFiles({source}); }),
                 "VANTRO_SIGN_LOCAL_ROOT_MISSING");
        QVERIFY(!QFileInfo::exists(QDir::current().filePath("Originalai")));
        QCOMPARE(documents(fx), 0);
        QVERIFY(QFileInfo(source).isFile());
    }
};

QTEST_GUILESS_MAIN(StoreImportTest)
#include "tst_store_import.moc"
