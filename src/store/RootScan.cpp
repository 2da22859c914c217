#include "store/RootScan.h"

#include "platform/DirectoryListing.h"
#include "store/RootRules.h"

#include <QFileInfo>

#include <algorithm>

namespace vantro::rootscan {

namespace {

using platform::DirectoryEntry;

class Walker
{
public:
    Walker(const QString& root, const QString& deletedFolderName)
        : m_root(root)
        , m_deletedFolderName(deletedFolderName)
    {
    }

    void walk(const QString& folder, const QString& relativeFolder, int depth)
    {
        if (depth > kMaxDepth) {
            m_result.errors.append({folder, QStringLiteral("Maximum scan depth exceeded")});
            return;
        }
        QList<DirectoryEntry> entries;
        QString error;
        if (!platform::listDirectory(folder, entries, error)) {
            m_result.errors.append({folder, error});
            return;
        }
        m_result.folders.append(folder);
        // A fixed order makes runs repeatable: with two identical new files, the same one
        // takes over a missing document every time.
        std::sort(entries.begin(), entries.end(),
                  [](const DirectoryEntry& a, const DirectoryEntry& b) { return a.name < b.name; });
        for (const DirectoryEntry& entry : entries)
            visit(folder, relativeFolder, entry, depth);
    }

    ScanResult take() { return std::move(m_result); }

private:
    void visit(const QString& folder, const QString& relativeFolder, const DirectoryEntry& entry,
               int depth)
    {
        const QString relative =
            relativeFolder.isEmpty() ? entry.name : relativeFolder + QLatin1Char('/') + entry.name;
        if (entry.kind == DirectoryEntry::Link ||
            rootrules::isSkippedRelativePath(relative, m_deletedFolderName)) {
            ++m_result.skippedTemp;
            return;
        }
        const QString path = folder + QLatin1Char('/') + entry.name;
        if (entry.kind == DirectoryEntry::Directory)
            walk(path, relative, depth + 1);
        else if (entry.kind == DirectoryEntry::File)
            visitFile(path, relative, entry);
    }

    void visitFile(const QString& path, const QString& relative, const DirectoryEntry& entry)
    {
        const int dot = entry.name.lastIndexOf(QLatin1Char('.'));
        const QString suffix = dot < 0 ? QString() : entry.name.mid(dot + 1);
        if (!rootrules::isSupportedDocumentType(entry.name) ||
            rootrules::isTemporarySuffix(suffix) || entry.name.startsWith(QLatin1String("~$"))) {
            ++m_result.skippedTemp;
            return;
        }
        if (entry.size < 1 || entry.size > kMaxDocumentBytes) {
            ++m_result.skippedPlaceholders;
            return;
        }
        m_result.files.append({path, relative, entry.name, entry.size, entry.modifiedMs});
    }

    QString m_root;
    QString m_deletedFolderName;
    ScanResult m_result;
};

} // namespace

QStringList scannedFolders(const QString& root, const QString& deletedFolderName)
{
    return scanRoot(root, deletedFolderName).folders;
}

ScanResult scanRoot(const QString& root, const QString& deletedFolderName)
{
    if (!QFileInfo(root).isDir()) {
        ScanResult missing;
        missing.errors.append({root, QStringLiteral("Local root does not exist")});
        return missing;
    }
    Walker walker(root, deletedFolderName);
    walker.walk(root, QString(), 0);
    return walker.take();
}

} // namespace vantro::rootscan
