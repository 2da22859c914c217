#pragma once

#include <QList>
#include <QString>
#include <QStringList>

// The walk of the local root that reconciliation runs: which files are candidate documents,
// which entries are skipped, and what could not be read. File-system only; hashing and the
// database are the reconciler's.
namespace vantro::rootscan {

inline constexpr int kMaxDepth = 64;
inline constexpr qint64 kMaxDocumentBytes = 52428800;

struct ScannedFile
{
    QString path;         // absolute, "/" separated
    QString relativePath; // root-relative, "/" separated
    QString name;
    qint64 size = 0;
    qint64 modifiedMs = 0; // UTC milliseconds since the epoch
};

struct ScanError
{
    QString path;
    QString message;
};

struct ScanResult
{
    QList<ScannedFile> files; // in walk order: depth first, each folder's entries by name
    QList<ScanError> errors;
    QStringList folders; // every folder entered, the root first
    // Empty and oversized documents are placeholders (likely still being written or not yet
    // fetched); everything else skipped (links, temporary and lock files, skipped folders,
    // other types) is temporary.
    int skippedTemp = 0;
    int skippedPlaceholders = 0;
};

// Walks `root` (absolute, cleaned). Links are never followed; a folder deeper than kMaxDepth is
// reported as an error and not entered; unreadable folders become errors. Never throws.
ScanResult scanRoot(const QString& root, const QString& deletedFolderName);

} // namespace vantro::rootscan
