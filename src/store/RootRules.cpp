#include "store/RootRules.h"

#include "app/Errors.h"
#include "app/SafeName.h"
#include "platform/FileSystem.h"

#include <QDir>
#include <QFileInfo>
#include <QStringList>

namespace vantro::rootrules {

namespace {

bool isOneOf(const QString& value, std::initializer_list<const char*> choices)
{
    for (const char* choice : choices) {
        if (value == QLatin1String(choice))
            return true;
    }
    return false;
}

} // namespace

QString relativePathInRoot(const QString& root, const QString& path)
{
    if (root.isEmpty() || path.isEmpty())
        return {};
    const QString absolute = QFileInfo(path).absoluteFilePath();
    const QString relative = QDir(root).relativeFilePath(absolute);
    if (relative.startsWith(QLatin1String("..")) || QDir::isAbsolutePath(relative))
        return {};
    return QDir::fromNativeSeparators(relative);
}

QString cleanFileName(const QString& name, const QString& fallback)
{
    const QString cleaned = windowsSafeName(name, kMaxFileNameLength);
    return cleaned.isEmpty() ? fallback : cleaned;
}

QString titleFromFile(const QString& path)
{
    const QString fileName = QFileInfo(path).fileName();
    const QString title = fileName.left(fileName.indexOf(QLatin1Char('.'))).trimmed();
    return title.isEmpty() ? QString::fromLatin1(kFallbackTitle) : title;
}

QString uniquePath(const QString& wantedPath)
{
    const QFileInfo wanted(wantedPath);
    const QDir folder = wanted.dir();
    const QString name = wanted.fileName();
    const int dot = name.indexOf(QLatin1Char('.'));
    const QString base = dot < 0 ? name : name.left(dot);
    const QString suffix = dot < 0 ? QString() : name.mid(dot);
    for (int attempt = 0; attempt < kUniquePathAttempts; ++attempt) {
        const QString candidate =
            attempt == 0
                ? wantedPath
                : folder.filePath(QStringLiteral("%1_%2%3").arg(base).arg(attempt + 1).arg(suffix));
        const QFileInfo info(candidate);
        // A dangling symbolic link does not "exist" but still blocks creating a file there.
        if (!info.exists() && !info.isSymLink())
            return candidate;
    }
    fail(QStringLiteral("VANTRO_SIGN_LOCAL_FILE_UNIQUE_PATH_EXHAUSTED"), wantedPath);
}

const QStringList& supportedDocumentSuffixes()
{
    static const QStringList suffixes{
        QStringLiteral("pdf"),  QStringLiteral("doc"),  QStringLiteral("docx"),
        QStringLiteral("odt"),  QStringLiteral("xls"),  QStringLiteral("xlsx"),
        QStringLiteral("txt"),  QStringLiteral("png"),  QStringLiteral("jpg"),
        QStringLiteral("jpeg"), QStringLiteral("adoc"), QStringLiteral("asice")};
    return suffixes;
}

bool isSupportedDocumentType(const QString& path)
{
    return supportedDocumentSuffixes().contains(QFileInfo(path).suffix().toLower());
}

bool isSameOrInside(const QString& root, const QString& path)
{
    if (root.isEmpty() || path.isEmpty())
        return false;
    // Where names compare without case, a root spelt differently is the same root.
    const Qt::CaseSensitivity sensitivity = platform::fileNameCase();
    if (path.compare(root, sensitivity) == 0)
        return true;
    const QString prefix = root.endsWith(QLatin1Char('/')) ? root : root + QLatin1Char('/');
    return path.startsWith(prefix, sensitivity);
}

bool isPhysicallyInside(const QString& root, const QString& path)
{
    if (relativePathInRoot(root, path).isEmpty())
        return false;
    const QString canonicalRoot = QFileInfo(root).canonicalFilePath();
    QString folder = QFileInfo(path).absolutePath();
    while (!QFileInfo::exists(folder)) {
        const QString parent = QFileInfo(folder).absolutePath();
        if (parent == folder)
            return false;
        folder = parent;
    }
    return !canonicalRoot.isEmpty() &&
           isSameOrInside(canonicalRoot, QFileInfo(folder).canonicalFilePath());
}

bool isTemporarySuffix(const QString& suffix)
{
    return isOneOf(suffix.toLower(), {"tmp", "temp", "partial", "crdownload", "download"});
}

bool isSkippedDirectoryName(const QString& name)
{
    return isOneOf(name.trimmed().toLower(), {"tmp", "temp", ".tmp", ".temp", "cache", ".cache",
                                              "previews", "preview-cache", ".vantro-temp"});
}

bool isSkippedRelativePath(const QString& relativePath, const QString& deletedFolderName)
{
    const QStringList parts = relativePath.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    if (parts.isEmpty())
        return false;
    const QString first = parts.first();
    const QString firstTrimmed = first.trimmed().toLower();
    if (firstTrimmed == QLatin1String("pasirasyta") ||
        firstTrimmed == QString::fromUtf8(u8"pasira\u0161yta"))
        return true;
    if (first.toLower() == deletedFolderName.toLower())
        return true;
    for (qsizetype i = 0; i + 1 < parts.size(); ++i) {
        if (isSkippedDirectoryName(parts.at(i)))
            return true;
    }
    const QString fileName = parts.last().toLower();
    if (fileName.startsWith(QLatin1String("~$")))
        return true;
    const int dot = fileName.lastIndexOf(QLatin1Char('.'));
    return dot >= 0 && isTemporarySuffix(fileName.mid(dot + 1));
}

QString monthFolder(const QString& root, const QDate& localDate)
{
    return QDir(root).filePath(QString::fromLatin1(kOriginalsFolder) + QLatin1Char('/') +
                               localDate.toString(QStringLiteral("yyyy-MM")));
}

} // namespace vantro::rootrules
