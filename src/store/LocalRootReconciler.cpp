#include "store/LocalRootReconciler.h"

#include "app/Errors.h"
#include "store/FileHashCache.h"
#include "store/LocalStore.h"
#include "store/RootRules.h"
#include "store/RootScan.h"
#include "store/StoreSql.h"

#include <QHash>
#include <QMimeDatabase>
#include <QSet>
#include <QSqlQuery>

namespace vantro {

namespace {

const QString kMissing = QStringLiteral("MISSING");
const QString kCloudLocal = QStringLiteral("LOCAL");

struct Entry
{
    rootscan::ScannedFile file;
    QString key;    // lower-cased absolute path
    QString sha256; // empty when the file could not be read
};

struct KnownDocument
{
    QString id;
    QString status;
    QString serverDocumentId; // "" when the document was never uploaded
    bool hasServerId = false;
    QString title;
    QString currentVersionId;
    QString currentKey;
    QString currentRelativePath;
    QString currentSha256;
    bool hasCurrent = false;
    bool settled = false; // found at its path, restored or renamed in this run
};

QString isoOf(const QDateTime& time)
{
    return time.toUTC().toString(Qt::ISODateWithMs);
}

class Run
{
public:
    Run(LocalStore& store, const QDateTime& now)
        : m_store(store)
        , m_now(isoOf(now))
        , m_purgeAfter(isoOf(now.addDays(LocalRootReconciler::kPurgeAfterDays)))
    {
    }

    OrderedObject execute()
    {
        m_store.open();
        const QString root = m_store.localRoot();
        rootscan::ScanResult scan = rootscan::scanRoot(root, m_store.deletedFolderName());
        m_errors = scan.errors;
        hashEntries(scan.files);
        const int purged = purge();
        loadDocuments();
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
    // Every scanned file gets its hash from the cache or from its bytes; a file that vanished
    // or cannot be read since the walk saw it is an error of this run, not a failure of it.
    void hashEntries(const QList<rootscan::ScannedFile>& files)
    {
        FileHashCache cache(m_store);
        QSet<QString> seen;
        m_entries.reserve(files.size());
        for (const rootscan::ScannedFile& file : files) {
            Entry entry{file, FileHashCache::pathKey(file.path), QString()};
            try {
                entry.sha256 = cache.sha256(file.path, file.size, file.modifiedMs);
            } catch (const VantroError& error) {
                m_errors.append({file.path, error.text()});
            }
            seen.insert(entry.key);
            m_entries.append(entry);
        }
        cache.flush();
        cache.prune(seen);
        m_seenKeys = seen;
    }

    int purge()
    {
        return m_store.execute(
            QStringLiteral("DELETE FROM local_documents WHERE status = 'MISSING' AND "
                           "COALESCE(purge_after, '') <> '' AND purge_after <= ?"),
            {m_now});
    }

    // Versions under the signed, deleted and temporary folders are the mirror's and the
    // deletion policy's business and take no part.
    void loadDocuments()
    {
        const QString deleted = m_store.deletedFolderName();
        m_store.forEachRow(
            QStringLiteral("SELECT d.id, d.status, d.server_document_id, d.title, "
                           "d.current_version_id, v.id, v.path, v.relative_path, v.sha256 FROM "
                           "local_documents d JOIN local_versions v ON v.document_id = d.id ORDER "
                           "BY d.created_at, d.id, v.created_at"),
            {}, [&](const QSqlQuery& row) {
                const QString relative = row.value(7).toString();
                if (rootrules::isSkippedRelativePath(relative, deleted))
                    return;
                const qsizetype index = documentIndexFor(row);
                KnownDocument& document = m_documents[index];
                const QString key = FileHashCache::pathKey(row.value(6).toString());
                if (!m_byPath.contains(key))
                    m_byPath.insert(key, index);
                if (row.value(5).toString() == document.currentVersionId) {
                    document.hasCurrent = true;
                    document.currentKey = key;
                    document.currentRelativePath = relative;
                    document.currentSha256 = row.value(8).toString();
                }
            });
        for (qsizetype i = 0; i < m_documents.size(); ++i) {
            KnownDocument& document = m_documents[i];
            if (!document.hasCurrent)
                continue;
            if (m_seenKeys.contains(document.currentKey))
                document.settled = true;
            else
                m_byHash[document.currentSha256].append(i);
        }
    }

    qsizetype documentIndexFor(const QSqlQuery& row)
    {
        const QString id = row.value(0).toString();
        const auto found = m_documentIndex.constFind(id);
        if (found != m_documentIndex.constEnd())
            return *found;
        KnownDocument document;
        document.id = id;
        document.status = row.value(1).toString();
        document.hasServerId = !row.isNull(2);
        document.serverDocumentId = row.value(2).toString();
        document.title = row.value(3).toString();
        document.currentVersionId = row.value(4).toString();
        m_documentIndex.insert(id, m_documents.size());
        m_documents.append(document);
        return m_documents.size() - 1;
    }

    void settle()
    {
        StoreTransaction transaction(m_store);
        for (const Entry& entry : std::as_const(m_entries))
            settleEntry(entry);
        for (KnownDocument& document : m_documents) {
            if (document.hasCurrent && !document.settled && document.status != kMissing)
                markMissing(document);
        }
        transaction.commit();
    }

    void settleEntry(const Entry& entry)
    {
        const auto known = m_byPath.constFind(entry.key);
        if (known != m_byPath.constEnd()) {
            KnownDocument& document = m_documents[*known];
            document.settled = true;
            if (document.status == kMissing)
                restore(document, entry);
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

    OrderedObject item(const KnownDocument& document, const QString& relativePath) const
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
        document.status = document.hasServerId ? QStringLiteral("UPLOADED") : kCloudLocal;
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
        document.status = kMissing;
        OrderedObject missing = item(document, document.currentRelativePath);
        missing.insert(QStringLiteral("missingSince"), m_now);
        missing.insert(QStringLiteral("purgeAfter"), m_purgeAfter);
        missing.insert(QStringLiteral("cloudState"), cloudState);
        m_missing.append(missing.toVariant());
    }

    LocalFileDescriptor describe(const Entry& entry) const
    {
        LocalFileDescriptor file;
        file.path = entry.file.path;
        file.relativePath = entry.file.relativePath;
        file.name = entry.file.name;
        file.title = rootrules::titleFromFile(entry.file.name);
        file.size = entry.file.size;
        file.sha256 = entry.sha256;
        file.mimeType = m_mime.mimeTypeForFile(entry.file.path).name();
        return file;
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
    QList<Entry> m_entries;
    QSet<QString> m_seenKeys;
    QList<rootscan::ScanError> m_errors;
    QList<KnownDocument> m_documents;
    QHash<QString, qsizetype> m_documentIndex;
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
    return Run(m_store, now).execute();
}

OrderedObject LocalStore::reconcileLocalRoot()
{
    return LocalRootReconciler(*this).run();
}

} // namespace vantro
