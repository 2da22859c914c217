#pragma once

#include <QDate>
#include <QString>
#include <QStringList>

// Naming and layout rules of the local root, shared by import, reconciliation, deletion and the
// signed-artifact mirror. Pure functions: the root and the settings they need are passed in.
namespace vantro::rootrules {

// Fixed folders directly under the local root.
inline constexpr char kOriginalsFolder[] = "Originalai";
inline constexpr char kSignedFolder[] = "Pasirasyta";
inline constexpr char kProcessedFolder[] = "Apdorota";
inline constexpr char kDefaultDeletedFolder[] = "Istrinta";
// Fallback name for files created from a name the application did not choose itself.
inline constexpr char kFallbackFileName[] = "Vantro_dokumentas";
inline constexpr char kFallbackTitle[] = "Dokumentas";
inline constexpr int kMaxFileNameLength = 180;
inline constexpr int kUniquePathAttempts = 100;

// Root-relative path of `path` with "/" separators; empty when the path is outside `root`.
// The check is textual: a name directly in the root that starts with ".." counts as outside.
QString relativePathInRoot(const QString& root, const QString& path);

// Windows-safe file name: forbidden and control characters become "_", trailing dots and spaces
// go, at most 180 characters; `fallback` when nothing is left.
QString cleanFileName(const QString& name, const QString& fallback);

// Everything before the first dot of the file name, trimmed; "Dokumentas" when empty.
QString titleFromFile(const QString& path);

// `wantedPath` itself when free, else name_2.ext ... name_100.ext (the suffix starts at the first
// dot). Throws VANTRO_SIGN_LOCAL_FILE_UNIQUE_PATH_EXHAUSTED when all are taken.
QString uniquePath(const QString& wantedPath);

// Lower-case suffixes of the document types import accepts, in the order pickers list them.
const QStringList& supportedDocumentSuffixes();
bool isSupportedDocumentType(const QString& path);

// True when the cleaned absolute `path` is `root` itself or lies below it. Unlike
// relativePathInRoot, a child whose name starts with ".." counts as inside.
bool isSameOrInside(const QString& root, const QString& path);
// isSameOrInside for the path as the file system resolves it: the nearest existing folder of
// `path`, links followed, must lie inside the root with links followed, so that a link inside
// the root cannot lead a write or a removal out of it. Also false when relativePathInRoot is empty.
bool isPhysicallyInside(const QString& root, const QString& path);
bool isTemporarySuffix(QStringView suffix);
bool isSkippedDirectoryName(QStringView name);

// The file-name part of the rule below: office lock files ("~$") and partial downloads
// (".tmp", ".temp", ".partial", ".crdownload", ".download"), letter case ignored.
bool isSkippedFileName(QStringView name);

// True for paths that are never user documents: the signed and deleted folders (first part
// only), temporary and cache folders at any depth, office lock files and partial downloads.
bool isSkippedRelativePath(const QString& relativePath, const QString& deletedFolderName);

// The import folder for the given local date: root/Originalai/yyyy-MM.
QString monthFolder(const QString& root, const QDate& localDate);

} // namespace vantro::rootrules
