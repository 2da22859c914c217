#include "store/FileHashCache.h"

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
}

void FileHashCache::load()
{
    // The path itself is read only for the rows the walk did not see (prune).
    m_store.forEachRow(
        QStringLiteral(
            "SELECT path_key, size_bytes, last_modified_ms, sha256 FROM local_file_hash_cache"),
        {}, [&](const QSqlQuery& row) {
            m_entries.insert(
                row.value(0).toString(),
                {row.value(1).toLongLong(), row.value(2).toLongLong(), row.value(3).toString()});
        });
}

QString FileHashCache::cached(const QString& pathKey, qint64 size, qint64 modifiedMs) const
{
    const auto found = m_entries.constFind(pathKey);
    if (found != m_entries.constEnd() && found->size == size && found->modifiedMs == modifiedMs &&
        found->sha256.size() == kSha256HexLength)
        return found->sha256;
    return {};
}

void FileHashCache::remember(const QString& pathKey, const QString& path, qint64 size,
                             qint64 modifiedMs, const QString& sha256)
{
    m_entries.insert(pathKey, {size, modifiedMs, sha256});
    m_dirty.append({pathKey, path});
}

// Many rows per statement: a first run writes one row for every file of the root.
void FileHashCache::flush()
{
    constexpr qsizetype kRowsPerStatement = 200;
    if (m_dirty.isEmpty())
        return;
    const QString now = storesql::nowIso();
    StoreTransaction transaction(m_store);
    for (qsizetype first = 0; first < m_dirty.size(); first += kRowsPerStatement) {
        const qsizetype count = qMin(kRowsPerStatement, m_dirty.size() - first);
        QStringList rows;
        QVariantList values;
        for (qsizetype i = first; i < first + count; ++i) {
            const auto& [key, path] = m_dirty.at(i);
            const Entry& entry = m_entries[key];
            rows << QStringLiteral("(?, ?, ?, ?, ?, ?)");
            values << key << path << entry.size << entry.modifiedMs << entry.sha256 << now;
        }
        m_store.execute(
            QStringLiteral("INSERT INTO local_file_hash_cache (path_key, path, size_bytes, "
                           "last_modified_ms, sha256, updated_at) VALUES %1 ON CONFLICT(path_key) "
                           "DO UPDATE SET path = excluded.path, size_bytes = excluded.size_bytes, "
                           "last_modified_ms = excluded.last_modified_ms, sha256 = "
                           "excluded.sha256, updated_at = excluded.updated_at")
                .arg(rows.join(QStringLiteral(", "))),
            values);
    }
    transaction.commit();
    m_dirty.clear();
}

int FileHashCache::prune(const QSet<QString>& seenPathKeys)
{
    QList<QString> gone;
    for (auto it = m_entries.constBegin(); it != m_entries.constEnd(); ++it) {
        if (seenPathKeys.contains(it.key()))
            continue;
        const QJsonObject row = m_store.selectRow(
            QStringLiteral("SELECT path FROM local_file_hash_cache WHERE path_key = ?"),
            {it.key()});
        if (!QFileInfo::exists(row.value(QLatin1String("path")).toString()))
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
