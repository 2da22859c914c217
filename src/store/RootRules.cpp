#include "store/RootRules.h"

#include "app/Errors.h"
#include "app/SafeName.h"
#include "platform/FileSystem.h"

#include <QDir>
#include <QFileInfo>
#include <QStringList>

namespace vantro::rootrules {

namespace {

bool isOneOf(QStringView value, std::initializer_list<const char*> choices)
{
    for (const char* choice : choices) {
        if (value.compare(QLatin1String(choice), Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
}

QStringView suffixOf(QStringView name)
{
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    return dot < 0 ? QStringView() : name.mid(dot + 1);
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

// Called for every file of every reconciliation: no QFileInfo, no lower-cased copies.
bool isSupportedDocumentType(const QString& path)
{
    const qsizetype slash = path.lastIndexOf(QLatin1Char('/'));
    const QStringView suffix = suffixOf(QStringView(path).mid(slash + 1));
    if (suffix.isEmpty())
        return false;
    for (const QString& supported : supportedDocumentSuffixes()) {
        if (suffix.compare(supported, Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
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

bool isTemporarySuffix(QStringView suffix)
{
    return isOneOf(suffix, {"tmp", "temp", "partial", "crdownload", "download"});
}

bool isSkippedDirectoryName(QStringView name)
{
    return isOneOf(name.trimmed(), {"tmp", "temp", ".tmp", ".temp", "cache", ".cache", "previews",
                                    "preview-cache", ".vantro-temp"});
}

bool isSkippedFileName(QStringView name)
{
    if (name.startsWith(QLatin1String("~$")))
        return true;
    const QStringView suffix = suffixOf(name);
    return !suffix.isEmpty() && isTemporarySuffix(suffix);
}

bool isSkippedRelativePath(const QString& relativePath, const QString& deletedFolderName)
{
    static const QString signedWithCaron = QString::fromUtf8(u8"pasira\u0161yta");
    const auto parts = QStringView(relativePath).tokenize(QLatin1Char('/'), Qt::SkipEmptyParts);
    QStringView previous; // the part before the current one: a folder, once another follows
    bool any = false;
    for (const QStringView part : parts) {
        if (!any) {
            any = true;
            const QStringView trimmed = part.trimmed();
            if (trimmed.compare(QLatin1String("pasirasyta"), Qt::CaseInsensitive) == 0 ||
                trimmed.compare(signedWithCaron, Qt::CaseInsensitive) == 0 ||
                part.compare(deletedFolderName, Qt::CaseInsensitive) == 0)
                return true;
        } else if (isSkippedDirectoryName(previous)) {
            return true;
        }
        previous = part;
    }
    return any && isSkippedFileName(previous);
}

QString monthFolder(const QString& root, const QDate& localDate)
{
    return QDir(root).filePath(QString::fromLatin1(kOriginalsFolder) + QLatin1Char('/') +
                               localDate.toString(QStringLiteral("yyyy-MM")));
}

} // namespace vantro::rootrules
