// The deletion policy: keep, remove or move into the deleted-files folder, the target's name,
// the copy fallback, and document deletion through the store.
#include "StoreTestSupport.h"

#include "store/LocalDeletion.h"

using namespace vantro;
using namespace storetest;

namespace {

const QDate kToday(2026, 1, 15);

QJsonObject policy(const QString& action, bool byMonth = true, const QString& folder = {})
{
    QJsonObject settings{{"deletedFileAction", action}, {"groupDeletedByMonth", byMonth}};
    if (!folder.isEmpty())
        settings.insert("deletedFolderName", folder);
    return settings;
}

QString outcomeText(const OrderedObject& outcome)
{
    return outcome.value("status").toString() + '|' + outcome.value("relativePath").toString();
}

} // namespace

class LocalDeletionTest : public QObject
{
    Q_OBJECT
    std::unique_ptr<StoreFixture> m_fx;

    QString put(const QString& relative) { return m_fx->put(relative); }

private Q_SLOTS:
    void init() { m_fx = std::make_unique<StoreFixture>(); }

    // Expected: status|relative path afterwards; "" when nothing may be left at the old place.
    void removeLocalFile_data()
    {
        QTest::addColumn<QJsonObject>("settings");
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("expected");
        const QString a80(80, 'a');
        QTest::newRow("default: month folder, former folders kept")
            << policy("anything") << "Projektai/Sutartis.pdf"
            << "MOVED_TO_DELETED|Istrinta/2026-01/Projektai/Sutartis.pdf";
        QTest::newRow("taken name gets _2")
            << policy("move_to_deleted_folder") << "Taken/Sutartis.pdf"
            << "MOVED_TO_DELETED|Istrinta/2026-01/Taken/Sutartis_2.pdf";
        QTest::newRow("without months")
            << policy("move_to_deleted_folder", false, "Siuksles") << "P/a.pdf"
            << "MOVED_TO_DELETED|Siuksles/P/a.pdf";
        QTest::newRow("long folder cut to 80")
            << policy("move_to_deleted_folder", false) << QString(a80 + "bbb/a.pdf")
            << QString("MOVED_TO_DELETED|Istrinta/" + a80 + "/a.pdf");
        QTest::newRow("keep") << policy("keep_local_files") << "P/a.pdf"
                              << "KEPT|P/a.pdf";
        QTest::newRow("delete permanently") << policy("delete_permanently") << "P/a.pdf"
                                            << "REMOVED|P/a.pdf";
    }
    void removeLocalFile()
    {
        QFETCH(QJsonObject, settings);
        QFETCH(QString, file);
        QFETCH(QString, expected);
        put("Istrinta/2026-01/Taken/Sutartis.pdf");
        const QString path = put(file);
        m_fx->state()->setLocalDeleteSettings(settings);
        const LocalDeletion deletion(m_fx->root(), m_fx->state()->localDeleteSettings(), kToday);
        const OrderedObject outcome = deletion.removeLocalFile(path);
        QCOMPARE(outcomeText(outcome), expected);
        const QString now = outcome.value("path").toString();
        QCOMPARE(QFileInfo::exists(now), !expected.startsWith("REMOVED"));
        QCOMPARE(QFileInfo::exists(path), expected.startsWith("KEPT"));
    }

    void missingAndOutside()
    {
        const LocalDeletion deletion(m_fx->root(), policy("delete_permanently"), kToday);
        QCOMPARE(outcomeText(deletion.removeLocalFile(m_fx->inRoot("gone.pdf"))),
                 "MISSING|gone.pdf");
        const QString outside = m_fx->writeFile("outside.pdf");
        QVERIFY(QDir().mkpath(m_fx->path("elsewhere")));
        QVERIFY(QFile::link(m_fx->path("elsewhere"), m_fx->inRoot("link")));
        const QString behindLink = m_fx->writeFile("elsewhere/x.pdf");
        for (const QString& path :
             {outside, m_fx->inRoot("../outside.pdf"), m_fx->inRoot("link/x.pdf")})
            QCOMPARE(codeOf([&] { deletion.removeLocalFile(path); }),
                     "VANTRO_SIGN_PATH_OUTSIDE_ROOT");
        QVERIFY(QFileInfo::exists(outside) && QFileInfo::exists(behindLink));
    }

    // A rename that fails (another volume) falls back to copy and remove; when the copy fails
    // too, the file stays where it was.
    void moveFallsBackToCopy()
    {
        const auto failingRename = [](const QString&, const QString&) {
            return false;
        };
        const LocalDeletion deletion(m_fx->root(), policy("move_to_deleted_folder"), kToday,
                                     failingRename);
        const QString path = put("a.pdf");
        QCOMPARE(outcomeText(deletion.removeLocalFile(path)),
                 "MOVED_TO_DELETED|Istrinta/2026-01/a.pdf");
        QVERIFY(!QFileInfo::exists(path));
        const QString locked = put("b.pdf");
        QVERIFY(QFile(m_fx->inRoot("Istrinta")).rename(m_fx->inRoot("Istrinta-old")));
        QVERIFY(QFile(m_fx->inRoot("Istrinta")).open(QIODevice::WriteOnly)); // a file, no folder
        QCOMPARE(codeOf([&] { deletion.removeLocalFile(locked); }),
                 "VANTRO_SIGN_LOCAL_MOVE_TO_DELETED_FAILED");
        QVERIFY(QFileInfo::exists(locked));
    }

    // Each distinct file of the document goes through the policy, then the rows go; a failure
    // leaves the document listed.
    void deleteDocument_data()
    {
        QTest::addColumn<QString>("action");
        QTest::addColumn<bool>("fileGone");
        QTest::addColumn<QString>("expected");
        QTest::newRow("keep") << "keep_local_files" << false << "KEPT|a.pdf";
        QTest::newRow("already gone") << "delete_permanently" << true << "MISSING|a.pdf";
        QTest::newRow("moved") << "move_to_deleted_folder" << false
                               << "MOVED_TO_DELETED|Istrinta/" +
                                      QDate::currentDate().toString("yyyy-MM") + "/a.pdf";
    }
    void deleteDocument()
    {
        QFETCH(QString, action);
        QFETCH(bool, fileGone);
        QFETCH(QString, expected);
        m_fx->state()->setLocalDeleteSettings(policy(action));
        auto store = m_fx->makeStore();
        const QString path = put("a.pdf");
        const QString id = fields(store->importFile(path), "documentId");
        store->addVersion({{"id", "v2"}, {"documentId", id}, {"path", path}}); // same file twice
        if (fileGone)
            QVERIFY(QFile::remove(path));
        const OrderedObject result = store->deleteDocument(id);
        QCOMPARE(result.value("deleted").toBool(), true);
        QCOMPARE(result.value("documentId").toString(), id);
        QStringList outcomes;
        for (const QVariant& file : result.value("files").toList())
            outcomes << outcomeText(file.value<OrderedObject>());
        QCOMPARE(outcomes, QStringList{expected});
        QVERIFY(store->getDocument(id).isEmpty());
        QCOMPARE(RawDatabase(m_fx->dbPath()).count("local_versions"), 0);
        QCOMPARE(codeOf([&] { store->deleteDocument(id); }),
                 "VANTRO_SIGN_LOCAL_DOCUMENT_NOT_FOUND");
    }

    void failedFileKeepsTheDocument()
    {
        m_fx->state()->setLocalDeleteSettings(policy("delete_permanently"));
        auto store = m_fx->makeStore();
        const QString id = fields(store->importFile(put("a.pdf")), "documentId");
        RawDatabase(m_fx->dbPath())
            .run("UPDATE local_versions SET path = ?", {m_fx->writeFile("outside.pdf")});
        QCOMPARE(codeOf([&] { store->deleteDocument(id); }), "VANTRO_SIGN_PATH_OUTSIDE_ROOT");
        QVERIFY(!store->getDocument(id).isEmpty());
        QVERIFY(QFileInfo::exists(m_fx->path("outside.pdf")));
    }
};

QTEST_GUILESS_MAIN(LocalDeletionTest)
#include "tst_local_deletion.moc"
