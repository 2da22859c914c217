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
    explicit Walker(const QString& deletedFolderName)
        : m_deletedFolderName(deletedFolderName)
    {
    }

    // `inSkippedFolder`: some folder on the way down has a skipped directory name (a "cache"
    // folder is entered, but nothing in it is a document). Carrying it down, with the first-part
    // rules applied at the root only, gives each entry the verdict of isSkippedRelativePath
    // without splitting its path again.
    void walk(const QString& folder, const QString& relativeFolder, int depth, bool inSkippedFolder)
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
            visit(folder, relativeFolder, entry, depth, inSkippedFolder);
    }

    ScanResult take() { return std::move(m_result); }

private:
    bool isSkipped(const DirectoryEntry& entry, int depth, bool inSkippedFolder) const
    {
        if (depth == 0)
            return rootrules::isSkippedRelativePath(entry.name, m_deletedFolderName);
        return inSkippedFolder || rootrules::isSkippedFileName(entry.name);
    }

    void visit(const QString& folder, const QString& relativeFolder, const DirectoryEntry& entry,
               int depth, bool inSkippedFolder)
    {
        if (entry.kind == DirectoryEntry::Link || isSkipped(entry, depth, inSkippedFolder)) {
            ++m_result.skippedTemp;
            return;
        }
        const QString relative =
            relativeFolder.isEmpty() ? entry.name : relativeFolder + QLatin1Char('/') + entry.name;
        const QString path = folder + QLatin1Char('/') + entry.name;
        if (entry.kind == DirectoryEntry::Directory)
            walk(path, relative, depth + 1,
                 inSkippedFolder || rootrules::isSkippedDirectoryName(entry.name));
        else if (entry.kind == DirectoryEntry::File)
            visitFile(path, relative, entry);
    }

    // Lock files and partial downloads were skipped with the path rule already.
    void visitFile(const QString& path, const QString& relative, const DirectoryEntry& entry)
    {
        if (!rootrules::isSupportedDocumentType(entry.name)) {
            ++m_result.skippedTemp;
            return;
        }
        if (entry.size < 1 || entry.size > kMaxDocumentBytes) {
            ++m_result.skippedPlaceholders;
            return;
        }
        m_result.files.append({path, relative, entry.name, entry.size, entry.modifiedMs});
    }

    QString m_deletedFolderName;
    ScanResult m_result;
};

} // namespace

ScanResult scanRoot(const QString& root, const QString& deletedFolderName)
{
    if (!QFileInfo(root).isDir()) {
        ScanResult missing;
        missing.errors.append({root, QStringLiteral("Local root does not exist")});
        return missing;
    }
    Walker walker(deletedFolderName);
    walker.walk(root, QString(), 0, false);
    return walker.take();
}

} // namespace vantro::rootscan
