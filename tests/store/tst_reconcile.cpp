// Reconciliation of the local root: what the walk takes and skips, renames by content, missing
// documents and their purge, restores, and the hash cache.
#include "StoreTestSupport.h"

#include "app/FileHash.h"
#include "store/LocalRootReconciler.h"

using namespace vantro;
using namespace storetest;

namespace {

const QDateTime kT0 = QDateTime(QDate(2026, 1, 31), QTime(9, 15, 2, 123), Qt::UTC);

QString iso(const QDateTime& time)
{
    return time.toString(Qt::ISODateWithMs);
}

QVariantList list(const OrderedObject& summary, const char* key)
{
    return summary.value(QLatin1String(key)).toList();
}

// "key=value" of the named keys of each item of a summary list, items joined by ";".
QString items(const OrderedObject& summary, const char* list, const char* keys)
{
    QStringList out;
    for (const QVariant& item : summary.value(QLatin1String(list)).toList()) {
        QStringList values;
        for (const QString& key : QString::fromLatin1(keys).split(' '))
            values << variantMember(item, key).toString();
        out << values.join('|');
    }
    return out.join(';');
}

} // namespace

class ReconcileTest : public QObject
{
    Q_OBJECT
    StoreCase m_case;

    OrderedObject run(const QDateTime& now = kT0)
    {
        LocalRootReconciler reconciler(*m_case.store);
        reconciler.setNow(now);
        return reconciler.run();
    }
    QString put(const QString& relative, const QByteArray& content)
    {
        return m_case.fx->put(relative, content);
    }
    QString sql(const QString& statement)
    {
        return RawDatabase(m_case.fx->dbPath()).scalar(statement);
    }

private Q_SLOTS:
    void init() { m_case.renew(); }
    void cleanup() { m_case.clear(); }

    // A folder of mixed files: only documents are imported, the rest counted by kind, and a
    // second run changes nothing.
    void mixedFolder()
    {
        put("Sutartis.pdf", "contract");
        put("Projektai/Aktas.docx", "act");
        put("~$Aktas.docx", "lock");
        put("a.pdf.crdownload", "partial download");
        put("empty.pdf", "");
        put("cache/x.pdf", "cached");
        put("Pasirasyta/s.pdf", "signed");
        put("Istrinta/d.pdf", "deleted");
        put("notes.xyz", "other type");
        put("Klientai/Pasirasyta/k.pdf", "a client's folder of that name is scanned");
        QVERIFY(QFile::link(m_case.fx->inRoot("Sutartis.pdf"), m_case.fx->inRoot("link.pdf")));
        const OrderedObject first = run();
        QCOMPARE(first.keys().join(' '), "root imported renamed restored missing purged "
                                         "skippedTemp skippedPlaceholders errors");
        QCOMPARE(first.value("root").toString(), m_case.fx->root());
        QCOMPARE(items(first, "imported", "relativePath title serverDocumentId"),
                 "Klientai/Pasirasyta/k.pdf|k|;Projektai/Aktas.docx|Aktas|;Sutartis.pdf|Sutartis|");
        // Istrinta, Pasirasyta, the partial download, cache/x.pdf, the link, notes.xyz, ~$ lock
        QCOMPARE(first.value("skippedTemp").toInt(), 7);
        QCOMPARE(first.value("skippedPlaceholders").toInt(), 1); // empty.pdf
        QVERIFY(list(first, "errors").isEmpty());

        const OrderedObject second = run(kT0.addSecs(60));
        for (const char* key : {"imported", "renamed", "restored", "missing", "errors"})
            QVERIFY2(list(second, key).isEmpty(), key);
        QCOMPARE(m_case.store->listDocuments({}).size(), 3);
    }

    void renameIsFollowedByContent()
    {
        const QString before = put("Sutartis.pdf", "contract");
        run();
        QVERIFY(QDir().mkpath(m_case.fx->inRoot("Sutartys")));
        QVERIFY(QFile::rename(before, m_case.fx->inRoot("Sutartys/Sutartis-final.pdf")));
        const OrderedObject summary = run(kT0.addSecs(60));
        QCOMPARE(items(summary, "renamed", "relativePath previousRelativePath title cloudState"),
                 "Sutartys/Sutartis-final.pdf|Sutartis.pdf|Sutartis-final|LOCAL");
        QVERIFY(list(summary, "imported").isEmpty() && list(summary, "missing").isEmpty());
        const QJsonObject document = m_case.store->listDocuments({})[0].toObject();
        QCOMPARE(fields(document, "title original_name"), "Sutartis-final|Sutartis-final.pdf");
        QCOMPARE(fields(document["current_version"].toObject(), "relative_path"),
                 "Sutartys/Sutartis-final.pdf");
    }

    // Missing for 30 days, then purged on the first run after that; with a service id the
    // cloud keeps it ("CLOUD_ONLY"), and a file put back returns to its state before.
    void missingRestoredAndPurged_data()
    {
        QTest::addColumn<QString>("serverId");
        QTest::addColumn<QString>("cloudState");
        QTest::addColumn<QString>("restoredAs");
        QTest::newRow("local only") << ""
                                    << "LOCAL_MISSING"
                                    << "LOCAL|LOCAL_ONLY";
        QTest::newRow("uploaded") << "S-1"
                                  << "CLOUD_ONLY"
                                  << "UPLOADED|SERVER_TRANSIENT";
    }
    void missingRestoredAndPurged()
    {
        QFETCH(QString, serverId);
        QFETCH(QString, cloudState);
        const QString path = put("Sutartis.pdf", "contract");
        run();
        const QString id = fields(m_case.store->listDocuments({})[0].toObject(), "id");
        if (!serverId.isEmpty())
            RawDatabase(m_case.fx->dbPath())
                .run("UPDATE local_documents SET server_document_id = ?", {serverId});
        QVERIFY(QFile::remove(path));
        const OrderedObject missing = run(kT0);
        QCOMPARE(items(missing, "missing",
                       "documentId serverDocumentId missingSince purgeAfter "
                       "cloudState"),
                 QStringList({id, serverId, iso(kT0), iso(kT0.addDays(30)), cloudState}).join('|'));
        QVERIFY(m_case.store->listDocuments({}).isEmpty());      // hidden from the default list
        QVERIFY(list(run(kT0.addSecs(1)), "missing").isEmpty()); // marked once only

        put("Sutartis.pdf", "contract");
        QCOMPARE(items(run(kT0.addDays(1)), "restored", "documentId relativePath cloudState"),
                 id + "|Sutartis.pdf|LOCAL");
        QTEST(fields(m_case.store->getDocument(id), "status local_state"), "restoredAs");
        QCOMPARE(fields(m_case.store->getDocument(id), "missing_since purge_after"), "~|~");

        QVERIFY(QFile::remove(path));
        run(kT0);
        QCOMPARE(run(kT0.addDays(30).addMSecs(-1)).value("purged").toInt(), 0);
        QCOMPARE(run(kT0.addDays(30)).value("purged").toInt(), 1);
        QVERIFY(m_case.store->getDocument(id).isEmpty());
        QCOMPARE(sql("SELECT COUNT(*) FROM local_versions"), "0"); // versions go with it
    }

    // Two new copies of a missing document's content: the first in name order takes the
    // document over, the second is a document of its own.
    void identicalCopiesOfAMissingFile()
    {
        const QString original = put("Sutartis.pdf", "contract");
        run();
        QVERIFY(QFile::remove(original));
        put("b/copy.pdf", "contract");
        put("a/copy.pdf", "contract");
        const OrderedObject summary = run(kT0.addSecs(1));
        QCOMPARE(items(summary, "renamed", "relativePath"), "a/copy.pdf");
        QCOMPARE(items(summary, "imported", "relativePath"), "b/copy.pdf");
        QVERIFY(list(summary, "missing").isEmpty());
    }

    // 65 folders deep: the 65th is reported and not entered, everything above is reconciled.
    void depthLimitAndLinkLoop()
    {
        QString relative;
        for (int depth = 1; depth <= 65; ++depth) {
            relative += QStringLiteral("d%1/").arg(depth);
            put(relative + QStringLiteral("f%1.pdf").arg(depth), QByteArray::number(depth));
        }
        QVERIFY(QFile::link(m_case.fx->root(), m_case.fx->inRoot("d1/loop")));
        const OrderedObject summary = run();
        QCOMPARE(items(summary, "errors", "path message"),
                 m_case.fx->inRoot(relative.chopped(1)) + "|Maximum scan depth exceeded");
        QCOMPARE(list(summary, "imported").size(), 64);
        QCOMPARE(summary.value("skippedTemp").toInt(), 1); // the link, not followed
    }

    void missingRootIsAnError()
    {
        QVERIFY(QDir(m_case.fx->root()).removeRecursively());
        const OrderedObject summary = run();
        QCOMPARE(items(summary, "errors", "path message"),
                 m_case.fx->root() + "|Local root does not exist");
    }

    // Unchanged files keep their cached hash (a planted value survives, so the file was not
    // read again), a changed file is hashed again, and rows of files that are gone are pruned.
    void hashCache()
    {
        const QString kept = put("kept.pdf", "one"), edited = put("edited.pdf", "two");
        put("removed.txt", "three");
        run();
        RawDatabase raw(m_case.fx->dbPath());
        raw.run("UPDATE local_file_hash_cache SET sha256 = ? WHERE path = ?",
                {QString(64, 'a'), kept});
        QFile file(edited);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write("TWO") == 3 && file.flush());
        QVERIFY(file.setFileTime(QDateTime::currentDateTimeUtc().addSecs(5),
                                 QFileDevice::FileModificationTime));
        file.close();
        QVERIFY(QFile::remove(m_case.fx->inRoot("removed.txt")));
        run(kT0.addSecs(1));
        QCOMPARE(raw.run("SELECT path || ' ' || sha256 FROM local_file_hash_cache ORDER BY path"),
                 (QStringList{edited + ' ' + sha256Hex("TWO"), kept + ' ' + QString(64, 'a')}));
    }
};

QTEST_GUILESS_MAIN(ReconcileTest)
#include "tst_reconcile.moc"
