#include "store/LocalRootReconciler.h"

#include "app/Errors.h"
#include "app/FileHash.h"
#include "store/FileHashCache.h"
#include "store/LocalStore.h"
#include "store/RootRules.h"
#include "store/RootScan.h"
#include "store/StoreSql.h"

#include <QFileInfo>
#include <QHash>
#include <QMimeDatabase>
#include <QSet>
#include <QSqlQuery>

#include <functional>
#include <thread>

namespace vantro {

namespace {

const QString kCloudLocal = QStringLiteral("LOCAL");

struct Entry
{
    rootscan::ScannedFile file;
    QString key;    // lower-cased absolute path
    QString sha256; // empty when the file could not be read
};

// A document as the run knows it. Only what every run needs is read for all documents; the
// rest is read for the few documents a run actually changes (loadDetails).
struct KnownDocument
{
    qint64 rowId = 0;
    bool missing = false;
    bool hasServerId = false;
    bool hasCurrent = false; // its current version takes part (is not under a skipped folder)
    bool settled = false;    // found at its path, restored or renamed in this run
    QString currentKey;      // lower-cased absolute path of the current version
    QString currentRelativePath;

    bool detailsLoaded = false;
    QString id;
    QString title;
    QString serverDocumentId; // "" when the document was never uploaded
    QString currentVersionId;
    QString currentSha256;
};

QString isoOf(const QDateTime& time)
{
    return time.toUTC().toString(Qt::ISODateWithMs);
}

// Joins the walker thread however the run ends.
class JoinedThread
{
public:
    explicit JoinedThread(std::function<void()> work)
        : m_thread(std::move(work))
    {
    }
    ~JoinedThread() { join(); }
    JoinedThread(const JoinedThread&) = delete;
    JoinedThread& operator=(const JoinedThread&) = delete;
    void join()
    {
        if (m_thread.joinable())
            m_thread.join();
    }

private:
    std::thread m_thread;
};

class Run
{
public:
    Run(LocalStore& store, const QDateTime& now)
        : m_store(store)
        , m_now(isoOf(now))
        , m_purgeAfter(isoOf(now.addDays(LocalRootReconciler::kPurgeAfterDays)))
    {
    }

    // The walk, and the path keys of what it found, run on a thread of their own while this one
    // reads the hash cache and the documents; the purge depends on neither and goes
    // first, so purged documents are not read.
    OrderedObject execute(QStringList& walkedFolders)
    {
        m_store.open();
        const QString root = m_store.localRoot();
        const QString deleted = m_store.deletedFolderName();
        const int purged = purge();
        rootscan::ScanResult scan;
        JoinedThread walker([&] {
            scan = walk(root, deleted);
            collectEntries(scan.files);
        });
        FileHashCache cache(m_store);
        cache.load();
        loadDocuments(deleted);
        walker.join();
        m_errors = scan.errors;
        walkedFolders = scan.folders;
        hashEntries(cache);
        findCandidates();
        settle();
        return OrderedObject{
            {QStringLiteral("root"), root},
            {QStringLiteral("imported"), m_imported},
            {QStringLiteral("renamed"), m_renamed},
            {QStringLiteral("restored"), m_restored},
            {QStringLiteral("missing"), m_missing},
            {QStringLiteral("purged"), purged},
            {QStringLiteral("skippedTemp"), scan.skippedTemp},
            {QStringLiteral("skippedPlaceholders"), scan.skippedPlaceholders},
            {QStringLiteral("errors"), errorList()},
        };
    }

private:
    static rootscan::ScanResult walk(const QString& root, const QString& deleted)
    {
        try {
            return rootscan::scanRoot(root, deleted);
        } catch (const std::exception& error) {
            rootscan::ScanResult failed;
            failed.errors.append({root, QString::fromUtf8(error.what())});
            return failed;
        }
    }

    // The walker's share: one entry, and one lower-cased key, per scanned file.
    void collectEntries(const QList<rootscan::ScannedFile>& files)
    {
        m_entries.reserve(files.size());
        m_seenKeys.reserve(files.size());
        for (const rootscan::ScannedFile& file : files) {
            Entry entry{file, FileHashCache::pathKey(file.path), QString()};
            m_seenKeys.insert(entry.key);
            m_entries.append(entry);
        }
    }

    // Every scanned file gets its hash from the cache when its size and time are unchanged, or
    // from its bytes; a file that vanished or cannot be read since the walk saw it is an error
    // of this run, not a failure of it.
    void hashEntries(FileHashCache& cache)
    {
        QList<qsizetype> misses;
        for (qsizetype i = 0; i < m_entries.size(); ++i) {
            Entry& entry = m_entries[i];
            entry.sha256 = cache.cached(entry.key, entry.file.size, entry.file.modifiedMs);
            if (entry.sha256.isEmpty())
                misses.append(i);
        }
        const QList<QString> failures = hashFiles(misses);
        for (qsizetype i = 0; i < misses.size(); ++i) {
            const Entry& entry = m_entries.at(misses.at(i));
            if (!failures.at(i).isEmpty())
                m_errors.append({entry.file.path, failures.at(i)});
            else
                cache.remember(entry.key, entry.file.path, entry.file.size, entry.file.modifiedMs,
                               entry.sha256);
        }
        cache.flush();
        cache.prune(m_seenKeys);
    }

    // Hashes the entries at `indexes` on this thread and one more (a first run reads every file
    // of the root); answers each one's failure text, "" for a success.
    QList<QString> hashFiles(const QList<qsizetype>& indexes)
    {
        QList<QString> failures(indexes.size());
        // Raw pointers: the two threads write distinct elements and never touch the lists.
        Entry* entries = m_entries.data();
        QString* failed = failures.data();
        const auto hashEvery = [&](qsizetype start) {
            for (qsizetype i = start; i < indexes.size(); i += 2) {
                Entry& entry = entries[indexes.at(i)];
                try {
                    entry.sha256 = sha256File(entry.file.path);
                } catch (const VantroError& error) {
                    failed[i] = error.text();
                }
            }
        };
        if (indexes.size() > 1) {
            JoinedThread second([&] { hashEvery(1); });
            hashEvery(0);
        } else {
            hashEvery(0);
        }
        return failures;
    }

    int purge()
    {
        return m_store.execute(
            QStringLiteral("DELETE FROM local_documents WHERE status = 'MISSING' AND "
                           "COALESCE(purge_after, '') <> '' AND purge_after <= ?"),
            {m_now});
    }

    // Versions under the signed, deleted and temporary folders are the mirror's and the
    // deletion policy's business and take no part. Documents keep the order of their rows.
    void loadDocuments(const QString& deleted)
    {
        m_store.forEachRow(
            QStringLiteral("SELECT d.rowid, d.status = 'MISSING', d.server_document_id IS NOT "
                           "NULL, v.id = d.current_version_id, v.path, v.relative_path FROM "
                           "local_documents d JOIN local_versions v ON v.document_id = d.id"),
            {}, [&](const QSqlQuery& row) {
                const QString relative = row.value(5).toString();
                if (rootrules::isSkippedRelativePath(relative, deleted))
                    return;
                const qsizetype index = documentIndexFor(row);
                const QString key = FileHashCache::pathKey(row.value(4).toString());
                if (!m_byPath.contains(key)) // the first version with this path keeps it
                    m_byPath.insert(key, index);
                if (row.value(3).toBool()) {
                    KnownDocument& document = m_documents[index];
                    document.hasCurrent = true;
                    document.currentKey = key;
                    document.currentRelativePath = relative;
                }
            });
    }

    qsizetype documentIndexFor(const QSqlQuery& row)
    {
        const qint64 rowId = row.value(0).toLongLong();
        const auto found = m_documentIndex.constFind(rowId);
        if (found != m_documentIndex.constEnd())
            return *found;
        m_documentIndex.insert(rowId, m_documents.size());
        KnownDocument document;
        document.rowId = rowId;
        document.missing = row.value(1).toBool();
        document.hasServerId = row.value(2).toBool();
        m_documents.append(document);
        return m_documents.size() - 1;
    }

    KnownDocument& loadDetails(KnownDocument& document)
    {
        if (document.detailsLoaded)
            return document;
        m_store.forEachRow(
            QStringLiteral("SELECT d.id, d.title, d.server_document_id, d.current_version_id, "
                           "v.sha256 FROM local_documents d LEFT JOIN local_versions v ON v.id = "
                           "d.current_version_id WHERE d.rowid = ?"),
            {document.rowId}, [&](const QSqlQuery& row) {
                document.id = row.value(0).toString();
                document.title = row.value(1).toString();
                document.serverDocumentId = row.value(2).toString();
                document.currentVersionId = row.value(3).toString();
                document.currentSha256 = row.value(4).toString();
            });
        document.detailsLoaded = true;
        return document;
    }

    // Documents whose current file was not found at its path may have moved: they are indexed
    // by their content, in load order.
    void findCandidates()
    {
        for (qsizetype i = 0; i < m_documents.size(); ++i) {
            KnownDocument& document = m_documents[i];
            if (!document.hasCurrent)
                continue;
            if (m_seenKeys.contains(document.currentKey))
                document.settled = true;
            else
                m_byHash[loadDetails(document).currentSha256].append(i);
        }
    }

    void settle()
    {
        StoreTransaction transaction(m_store);
        for (const Entry& entry : std::as_const(m_entries))
            settleEntry(entry);
        for (KnownDocument& document : m_documents) {
            if (document.hasCurrent && !document.settled && !document.missing)
                markMissing(loadDetails(document));
        }
        transaction.commit();
    }

    void settleEntry(const Entry& entry)
    {
        const auto known = m_byPath.constFind(entry.key);
        if (known != m_byPath.constEnd()) {
            KnownDocument& document = m_documents[*known];
            document.settled = true;
            if (document.missing)
                restore(loadDetails(document), entry);
            return;
        }
        if (entry.sha256.isEmpty())
            return;
        if (KnownDocument* moved = takeRenameCandidate(entry.sha256))
            rename(*moved, entry);
        else
            import(entry);
    }

    KnownDocument* takeRenameCandidate(const QString& sha256)
    {
        auto candidates = m_byHash.find(sha256);
        if (candidates == m_byHash.end())
            return nullptr;
        while (!candidates->isEmpty()) {
            KnownDocument& document = m_documents[candidates->takeFirst()];
            if (!document.settled)
                return &document;
        }
        return nullptr;
    }

    static OrderedObject item(const KnownDocument& document, const QString& relativePath)
    {
        return OrderedObject{{QStringLiteral("documentId"), document.id},
                             {QStringLiteral("serverDocumentId"), document.serverDocumentId},
                             {QStringLiteral("title"), document.title},
                             {QStringLiteral("relativePath"), relativePath}};
    }

    void restore(KnownDocument& document, const Entry& entry)
    {
        m_store.execute(
            QStringLiteral(
                "UPDATE local_documents SET status = CASE WHEN server_document_id IS NULL THEN "
                "'LOCAL' ELSE 'UPLOADED' END, local_state = CASE WHEN server_document_id IS NULL "
                "THEN 'LOCAL_ONLY' ELSE 'SERVER_TRANSIENT' END, missing_since = '', hidden_at = "
                "'', purge_after = '', purged_at = '', cloud_state = 'LOCAL', last_error = '', "
                "updated_at = ? WHERE id = ?"),
            {m_now, document.id});
        document.missing = false;
        OrderedObject restored = item(document, entry.file.relativePath);
        restored.insert(QStringLiteral("cloudState"), kCloudLocal);
        m_restored.append(restored.toVariant());
    }

    void rename(KnownDocument& document, const Entry& entry)
    {
        const LocalFileDescriptor file = describe(entry);
        m_store.execute(QStringLiteral("UPDATE local_versions SET path = ?, relative_path = ?, "
                                       "sha256 = ?, size_bytes = ?, mime_type = ? WHERE id = ?"),
                        {file.path, file.relativePath, file.sha256, file.size, file.mimeType,
                         document.currentVersionId});
        m_store.execute(
            QStringLiteral(
                "UPDATE local_documents SET title = ?, original_name = ?, status = CASE WHEN "
                "status = 'MISSING' AND server_document_id IS NOT NULL THEN 'UPLOADED' WHEN "
                "status = 'MISSING' THEN 'LOCAL' ELSE status END, local_state = CASE WHEN "
                "server_document_id IS NULL THEN 'LOCAL_ONLY' ELSE 'SERVER_TRANSIENT' END, "
                "missing_since = '', hidden_at = '', purge_after = '', purged_at = '', cloud_state "
                "= 'LOCAL', last_error = '', updated_at = ? WHERE id = ?"),
            {file.title, file.name, m_now, document.id});
        document.settled = true;
        document.missing = false;
        document.title = file.title;
        OrderedObject renamed = item(document, file.relativePath);
        renamed.insert(QStringLiteral("previousRelativePath"), document.currentRelativePath);
        renamed.insert(QStringLiteral("cloudState"), kCloudLocal);
        m_renamed.append(renamed.toVariant());
    }

    void import(const Entry& entry)
    {
        const LocalFileDescriptor file = describe(entry);
        KnownDocument document;
        document.id = storesql::newId();
        document.title = file.title;
        m_store.insertImportedRows(file, document.id, storesql::newId(), m_now);
        m_imported.append(item(document, file.relativePath).toVariant());
    }

    void markMissing(KnownDocument& document)
    {
        const QString cloudState =
            document.hasServerId ? QStringLiteral("CLOUD_ONLY") : QStringLiteral("LOCAL_MISSING");
        m_store.execute(QStringLiteral("UPDATE local_documents SET status = 'MISSING', "
                                       "local_state = 'MISSING', missing_since = ?, hidden_at = "
                                       "?, purge_after = ?, cloud_state = ?, last_error = '', "
                                       "updated_at = ? WHERE id = ?"),
                        {m_now, m_now, m_purgeAfter, cloudState, m_now, document.id});
        document.missing = true;
        OrderedObject missing = item(document, document.currentRelativePath);
        missing.insert(QStringLiteral("missingSince"), m_now);
        missing.insert(QStringLiteral("purgeAfter"), m_purgeAfter);
        missing.insert(QStringLiteral("cloudState"), cloudState);
        m_missing.append(missing.toVariant());
    }

    LocalFileDescriptor describe(const Entry& entry)
    {
        LocalFileDescriptor file;
        file.path = entry.file.path;
        file.relativePath = entry.file.relativePath;
        file.name = entry.file.name;
        file.title = rootrules::titleFromFile(entry.file.name);
        file.size = entry.file.size;
        file.sha256 = entry.sha256;
        file.mimeType = mimeTypeOf(entry.file);
        return file;
    }

    // Most names have one MIME type by their suffix alone; that answer is the database's own
    // and is kept per suffix. Names that need the content to decide are asked for each file.
    QString mimeTypeOf(const rootscan::ScannedFile& file)
    {
        const QString suffix = QFileInfo(file.name).suffix().toLower();
        const auto known = m_mimeBySuffix.constFind(suffix);
        if (known != m_mimeBySuffix.constEnd())
            return *known;
        const QList<QMimeType> byName = m_mime.mimeTypesForFileName(file.name);
        if (byName.size() == 1 && !suffix.isEmpty()) {
            m_mimeBySuffix.insert(suffix, byName.first().name());
            return byName.first().name();
        }
        return m_mime.mimeTypeForFile(file.path).name();
    }

    QVariantList errorList() const
    {
        QVariantList errors;
        for (const rootscan::ScanError& error : m_errors)
            errors.append(OrderedObject{{QStringLiteral("path"), error.path},
                                        {QStringLiteral("message"), error.message}}
                              .toVariant());
        return errors;
    }

    LocalStore& m_store;
    const QString m_now;
    const QString m_purgeAfter;
    QMimeDatabase m_mime;
    QHash<QString, QString> m_mimeBySuffix;
    QList<Entry> m_entries;
    QSet<QString> m_seenKeys;
    QList<rootscan::ScanError> m_errors;
    QList<KnownDocument> m_documents;
    QHash<qint64, qsizetype> m_documentIndex; // by rowid
    QHash<QString, qsizetype> m_byPath;
    QHash<QString, QList<qsizetype>> m_byHash;
    QVariantList m_imported, m_renamed, m_restored, m_missing;
};

} // namespace

LocalRootReconciler::LocalRootReconciler(LocalStore& store)
    : m_store(store)
{
}

OrderedObject LocalRootReconciler::run()
{
    const QDateTime now = m_now.isValid() ? m_now : QDateTime::currentDateTimeUtc();
    return Run(m_store, now).execute(m_walkedFolders);
}

OrderedObject LocalStore::reconcileLocalRoot(QStringList* walkedFolders)
{
    LocalRootReconciler reconciler(*this);
    OrderedObject summary = reconciler.run();
    if (walkedFolders)
        *walkedFolders = reconciler.walkedFolders();
    return summary;
}

} // namespace vantro
