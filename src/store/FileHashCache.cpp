#include "store/FileHashCache.h"

#include "app/FileHash.h"
#include "store/LocalStore.h"
#include "store/StoreSql.h"

#include <QFileInfo>
#include <QSqlQuery>

namespace vantro {

namespace {
constexpr int kSha256HexLength = 64;
}

FileHashCache::FileHashCache(LocalStore& store)
    : m_store(store)
{
    m_store.forEachRow(
        QStringLiteral("SELECT path_key, path, size_bytes, last_modified_ms, sha256 FROM "
                       "local_file_hash_cache"),
        {}, [&](const QSqlQuery& row) {
            m_entries.insert(row.value(0).toString(),
                             {row.value(1).toString(), row.value(2).toLongLong(),
                              row.value(3).toLongLong(), row.value(4).toString()});
        });
}

QString FileHashCache::sha256(const QString& path, qint64 size, qint64 modifiedMs)
{
    const QString key = pathKey(path);
    const auto found = m_entries.constFind(key);
    if (found != m_entries.constEnd() && found->size == size && found->modifiedMs == modifiedMs &&
        found->sha256.size() == kSha256HexLength)
        return found->sha256;
    const QString hash = sha256File(path);
    m_entries.insert(key, {path, size, modifiedMs, hash});
    m_dirty.append(key);
    return hash;
}

void FileHashCache::flush()
{
    if (m_dirty.isEmpty())
        return;
    const QString now = storesql::nowIso();
    StoreTransaction transaction(m_store);
    for (const QString& key : std::as_const(m_dirty)) {
        const Entry& entry = m_entries[key];
        m_store.execute(
            QStringLiteral(
                "INSERT INTO local_file_hash_cache (path_key, path, size_bytes, last_modified_ms, "
                "sha256, updated_at) VALUES (?, ?, ?, ?, ?, ?) ON CONFLICT(path_key) DO UPDATE SET "
                "path = excluded.path, size_bytes = excluded.size_bytes, last_modified_ms = "
                "excluded.last_modified_ms, sha256 = excluded.sha256, updated_at = "
                "excluded.updated_at"),
            {key, entry.path, entry.size, entry.modifiedMs, entry.sha256, now});
    }
    transaction.commit();
    m_dirty.clear();
}

int FileHashCache::prune(const QSet<QString>& seenPathKeys)
{
    QList<QString> gone;
    for (auto it = m_entries.constBegin(); it != m_entries.constEnd(); ++it) {
        if (!seenPathKeys.contains(it.key()) && !QFileInfo::exists(it->path))
            gone.append(it.key());
    }
    if (gone.isEmpty())
        return 0;
    StoreTransaction transaction(m_store);
    for (const QString& key : std::as_const(gone)) {
        m_store.execute(QStringLiteral("DELETE FROM local_file_hash_cache WHERE path_key = ?"),
                        {key});
        m_entries.remove(key);
    }
    transaction.commit();
    return int(gone.size());
}

} // namespace vantro
