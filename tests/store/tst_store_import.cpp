// Import of local files: limits, placement in the local root, naming, path lists.
#include "StoreTestSupport.h"

using namespace vantro;
using namespace storetest;

namespace {

QString originals(const QString& name)
{
    return QStringLiteral("Originalai/%1/%2").arg(QDate::currentDate().toString("yyyy-MM"), name);
}

} // namespace

class StoreImportTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Where the file is registered, relative to the root; "" when the import is refused.
    void importOne_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<qint64>("size");
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("registered");
        const auto row = [](const char* name, const char* source, qint64 size, const char* code,
                            const QString& registered) {
            QTest::newRow(name) << source << size << code << registered;
        };
        row("exactly 50 MiB", "outside/big.pdf", 52428800, "", originals("big.pdf"));
        row("one byte more", "outside/big.pdf", 52428801, "VANTRO_SIGN_IMPORT_TOO_LARGE", "");
        row("zero bytes", "outside/e.pdf", 0, "VANTRO_SIGN_IMPORT_FILE_NOT_READY", "");
        row("presentation", "outside/s.pptx", 10, "VANTRO_SIGN_IMPORT_UNSUPPORTED_TYPE", "");
        row("upper-case suffix", "outside/A.PDF", 10, "", originals("A.PDF"));
        row("inside the root stays", "root/Projektai/a.pdf", 16, "", "Projektai/a.pdf");
        row("signed folder is copied", "root/Pasirasyta/S.pdf", 16, "", originals("S.pdf"));
    }
    void importOne()
    {
        QFETCH(QString, source);
        QFETCH(qint64, size);
        QFETCH(QString, registered);
        StoreFixture fx;
        const QString path = fx.writeFile(source, size);
        QVERIFY(!path.isEmpty());
        auto store = fx.makeStore();
        QJsonObject result;
        QTEST(codeOf([&] { result = store->importFiles({path}).at(0).toObject(); }), "code");
        QCOMPARE(RawDatabase(fx.dbPath()).count("local_documents"), registered.isEmpty() ? 0 : 1);
        QCOMPARE(QFileInfo::exists(fx.inRoot("Originalai")), registered.startsWith("Originalai"));
        QCOMPARE(QFileInfo(path).size(), size); // the source stays
        if (registered.isEmpty())
            return;
        QCOMPARE(fields(result, "ok sourcePath relativePath size"),
                 QStringList({"true", path, registered, QString::number(size)}).join('|'));
        QCOMPARE(QFileInfo(fx.inRoot(registered)).size(), size);
        const QJsonObject document = store->getDocument(fields(result, "documentId"));
        QCOMPARE(fields(document.value("current_version").toObject(), "path relative_path"),
                 fx.inRoot(registered) + '|' + registered);
    }

    void pathLists()
    {
        StoreFixture fx;
        QStringList paths;
        for (int i = 0; i < 101; ++i)
            paths << fx.writeFile(QStringLiteral("outside/f%1.pdf").arg(i));
        auto store = fx.makeStore();
        QCOMPARE(codeOf([&] { store->importFiles(paths); }), "VANTRO_SIGN_IMPORT_TOO_MANY_FILES");
        QCOMPARE(codeOf([&] { store->importFiles({}); }), "VANTRO_SIGN_IMPORT_FILES_REQUIRED");
        QVERIFY(!QFileInfo::exists(fx.inRoot("Originalai")));
        // Duplicates differ in letter case or trailing space; the first spelling is kept.
        const QJsonArray results =
            store->importFiles({paths[0], fx.path("OUTSIDE/F0.PDF"), paths[0] + ' ', paths[1]});
        QCOMPARE(column(results, "sourcePath"), (QStringList{paths[0], paths[1]}));
        // The same file again in the same month: a second copy and document.
        const QJsonObject again = store->importFiles({paths[0]}).at(0).toObject();
        QCOMPARE(fields(again, "relativePath"), originals("f0_2.pdf"));
        QCOMPARE(fields(store->getDocument(fields(again, "documentId")), "title"), "f0_2");
        QCOMPARE(RawDatabase(fx.dbPath()).count("local_documents"), 3);
    }

    // A database failure after the copy keeps the copy for a later scan and leaves no half
    // document: the document row is rolled back with the refused version row.
    void failureAfterCopyKeepsCopyAndNoRow()
    {
        StoreFixture fx;
        const QString source = fx.writeFile("outside/a.pdf");
        auto store = fx.makeStore();
        store->open();
        RawDatabase(fx.dbPath())
            .execute("CREATE TRIGGER refuse BEFORE INSERT ON local_versions "
                     "BEGIN SELECT RAISE(ABORT, 'refused'); END");
        const QString code = codeOf([&] { store->importFiles({source}); });
        QVERIFY2(code.contains("refused"), qPrintable(code));
        QVERIFY(QFileInfo::exists(fx.inRoot(originals("a.pdf"))));
        QCOMPARE(RawDatabase(fx.dbPath()).count("local_documents"), 0);
    }
};

QTEST_GUILESS_MAIN(StoreImportTest)
#include "tst_store_import.moc"
