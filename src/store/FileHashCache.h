#pragma once

#include <QHash>
#include <QList>
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

    // The cached hash of the file, or the file hashed now and remembered for flush().
    // Throws VANTRO_SIGN_LOCAL_FILE_READ_FAILED when the file cannot be read.
    QString sha256(const QString& path, qint64 size, qint64 modifiedMs);

    // Writes the hashes computed since loading, in one transaction.
    void flush();
    // Removes the rows whose file no longer exists; the files of `seenPathKeys` (this run's walk)
    // exist without asking the file system again. Answers the number of rows removed.
    int prune(const QSet<QString>& seenPathKeys);

    static QString pathKey(const QString& path) { return path.toLower(); }

private:
    struct Entry
    {
        QString path;
        qint64 size = 0;
        qint64 modifiedMs = 0;
        QString sha256;
    };

    LocalStore& m_store;
    QHash<QString, Entry> m_entries;
    QList<QString> m_dirty;
};

} // namespace vantro
