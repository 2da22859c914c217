#pragma once

#include <QHash>
#include <QList>
#include <QPair>
#include <QSet>
#include <QString>

namespace vantro {

class LocalStore;

// The file-hash cache of reconciliation (`local_file_hash_cache`): a file whose size and
// modification time are unchanged keeps its SHA-256 without being read again. The whole table
// is read once per run and new hashes are written in one transaction, so a run over thousands of
// unchanged files costs one query instead of one per file.
class FileHashCache
{
public:
    explicit FileHashCache(LocalStore& store);

    // Reads the whole table (once per run, before the lookups).
    void load();

    // The cached hash of the file when its size and modification time still match, else "".
    QString cached(const QString& pathKey, qint64 size, qint64 modifiedMs) const;
    // Remembers a hash computed now, for flush().
    void remember(const QString& pathKey, const QString& path, qint64 size, qint64 modifiedMs,
                  const QString& sha256);

    // Writes the hashes computed since loading, in one transaction.
    void flush();
    // Removes the rows whose file no longer exists; the files of `seenPathKeys` (this run's walk)
    // exist without asking the file system again. Answers the number of rows removed.
    int prune(const QSet<QString>& seenPathKeys);

    static QString pathKey(const QString& path) { return path.toLower(); }

private:
    struct Entry
    {
        qint64 size = 0;
        qint64 modifiedMs = 0;
        QString sha256;
    };

    LocalStore& m_store;
    QHash<QString, Entry> m_entries;
    QList<QPair<QString, QString>> m_dirty; // key and path of the hashes to write
};

} // namespace vantro
