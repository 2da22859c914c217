#include "update/UpdateManifest.h"

#include "update/Logging.h"
#include "vantro_config.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSaveFile>

#include <limits>

namespace vantro {

namespace {

const QString kProduct = QStringLiteral("Vantro Sign Next");
const QString kReadyRecord = QStringLiteral("ready.json");
constexpr char kFeedPath[] = "/downloads/sign/desktop/win/next/stable/latest.json";

const QRegularExpression& versionPattern()
{
    static const QRegularExpression pattern(
        QStringLiteral("^(0|[1-9][0-9]*)\\.(0|[1-9][0-9]*)\\.(0|[1-9][0-9]*)(?:-([0-9A-Za-z.-]+))?"
                       "(?:\\+[0-9A-Za-z.-]+)?$"));
    return pattern;
}

const QRegularExpression& buildIdPattern()
{
    static const QRegularExpression pattern(QStringLiteral("^[A-Za-z0-9_.-]{1,128}$"));
    return pattern;
}

int compareNumbers(quint64 a, quint64 b)
{
    return a < b ? -1 : (a > b ? 1 : 0);
}

int comparePreReleasePieces(const QString& a, const QString& b)
{
    bool aNumeric = false;
    bool bNumeric = false;
    const quint64 aValue = a.toULongLong(&aNumeric, 10);
    const quint64 bValue = b.toULongLong(&bNumeric, 10);
    if (aNumeric && bNumeric)
        return compareNumbers(aValue, bValue);
    if (aNumeric != bNumeric)
        return aNumeric ? -1 : 1;
    const int text = a.compare(b, Qt::CaseSensitive);
    return text < 0 ? -1 : (text > 0 ? 1 : 0);
}

int comparePreRelease(const QString& a, const QString& b)
{
    if (a.isEmpty() || b.isEmpty())
        return a.isEmpty() == b.isEmpty() ? 0 : (a.isEmpty() ? 1 : -1);
    const QStringList left = a.split(QLatin1Char('.'), Qt::KeepEmptyParts);
    const QStringList right = b.split(QLatin1Char('.'), Qt::KeepEmptyParts);
    for (qsizetype i = 0; i < qMin(left.size(), right.size()); ++i) {
        if (const int order = comparePreReleasePieces(left.at(i), right.at(i)))
            return order;
    }
    return compareNumbers(quint64(left.size()), quint64(right.size()));
}

// A JSON number as a byte count; values beyond 64 bits saturate instead of overflowing.
qint64 truncatedSize(double value)
{
    constexpr double kLimit = 9.2e18;
    if (value >= kLimit)
        return std::numeric_limits<qint64>::max();
    if (value <= -kLimit)
        return std::numeric_limits<qint64>::min();
    return qint64(value);
}

UpdateManifest rejected(const char* message)
{
    UpdateManifest manifest;
    manifest.error = QString::fromUtf8(message);
    return manifest;
}

// Rule 12: the name is the versioned one, is a bare file name, and ends the URL's path.
bool installerNameMatches(const UpdateManifest& m)
{
    const QString expected = QStringLiteral("VantroSignNextSetup-%1.exe").arg(m.version);
    const QString urlName = QFileInfo(m.installerUrl.path(QUrl::FullyDecoded)).fileName();
    return m.installerFileName == expected &&
           QFileInfo(m.installerFileName).fileName() == expected && urlName == expected;
}

// Rule 13: same origin as the feed, and HTTPS on both unless the feed is a local one.
bool installerOriginTrusted(const UpdateManifest& m, const QUrl& feedUrl, bool allowLocalFeed)
{
    const QString feedOrigin = urlOrigin(feedUrl);
    const bool localFeed = allowLocalFeed && isLocalHost(feedUrl);
    const bool secure = feedUrl.scheme() == QLatin1String("https") &&
                        m.installerUrl.scheme() == QLatin1String("https");
    return !feedOrigin.isEmpty() && urlOrigin(m.installerUrl) == feedOrigin &&
           (localFeed || secure);
}

// Rules 4 to 13 on a parsed object; the first broken rule's message, or empty.
const char* brokenRule(const QJsonObject& json, UpdateManifest& m, const QUrl& feedUrl,
                       const QString& installedVersion, bool allowLocalFeed)
{
    m.version = json.value(QStringLiteral("version")).toString().trimmed();
    m.buildId = json.value(QStringLiteral("buildId")).toString().trimmed();
    m.installerFileName = json.value(QStringLiteral("installerFileName")).toString().trimmed();
    m.installerUrl = QUrl(json.value(QStringLiteral("installerUrl")).toString(), QUrl::StrictMode);
    m.installerSize = truncatedSize(json.value(QStringLiteral("installerSize")).toDouble(0));
    const auto digest =
        QByteArray::fromBase64Encoding(json.value(QStringLiteral("sha512")).toString().toLatin1(),
                                       QByteArray::AbortOnBase64DecodingErrors);
    m.sha512 = digest ? *digest : QByteArray();
    m.publisher = json.value(QStringLiteral("publisher")).toString().trimmed();

    const auto version = parseSemanticVersion(m.version);
    if (!version || !version->preRelease.isEmpty())
        return "Update version must be a stable semantic version.";
    if (!parseSemanticVersion(installedVersion))
        return "Installed application version is invalid.";
    if (!buildIdPattern().match(m.buildId).hasMatch())
        return "Update build identity is invalid.";
    if (m.publisher != QString::fromUtf8(config::kPublisherName))
        return "Update publisher is not trusted.";
    if (m.sha512.size() != 64)
        return "Update SHA-512 digest is invalid.";
    if (quint64(m.installerSize) - 1u > quint64(kMaxInstallerBytes - 1))
        return "Update installer size is invalid.";
    if (!m.installerUrl.isValid() || m.installerUrl.hasQuery() || m.installerUrl.hasFragment() ||
        !m.installerUrl.userInfo().isEmpty())
        return "Update installer URL is invalid.";
    if (!installerNameMatches(m))
        return "Update installer filename is invalid.";
    if (!installerOriginTrusted(m, feedUrl, allowLocalFeed))
        return "Update installer origin is not trusted.";
    m.newer = compareSemanticVersions(*version, *parseSemanticVersion(installedVersion)) > 0;
    return nullptr;
}

} // namespace

std::optional<SemanticVersion> parseSemanticVersion(const QString& text)
{
    const QRegularExpressionMatch match = versionPattern().match(text);
    if (!match.hasMatch())
        return std::nullopt;
    SemanticVersion version;
    bool ok[3] = {false, false, false};
    version.major = match.captured(1).toULongLong(&ok[0]);
    version.minor = match.captured(2).toULongLong(&ok[1]);
    version.patch = match.captured(3).toULongLong(&ok[2]);
    if (!ok[0] || !ok[1] || !ok[2])
        return std::nullopt; // a number beyond 64 bits
    version.preRelease = match.captured(4);
    return version;
}

int compareSemanticVersions(const SemanticVersion& a, const SemanticVersion& b)
{
    if (const int order = compareNumbers(a.major, b.major))
        return order;
    if (const int order = compareNumbers(a.minor, b.minor))
        return order;
    if (const int order = compareNumbers(a.patch, b.patch))
        return order;
    return comparePreRelease(a.preRelease, b.preRelease);
}

bool environmentFlagOn(const char* name)
{
    const QString value = qEnvironmentVariable(name).trimmed().toLower();
    return value == QLatin1String("1") || value == QLatin1String("true") ||
           value == QLatin1String("yes") || value == QLatin1String("on");
}

QString urlOrigin(const QUrl& url)
{
    if (!url.isValid() || url.scheme().isEmpty() || url.host().isEmpty())
        return {};
    const QString scheme = url.scheme().toLower();
    QString origin = scheme + QStringLiteral("://") + url.host(QUrl::FullyDecoded).toLower();
    const int port = url.port();
    const bool defaultPort = (scheme == QLatin1String("https") && port == 443) ||
                             (scheme == QLatin1String("http") && port == 80);
    if (port != -1 && !defaultPort)
        origin += QLatin1Char(':') + QString::number(port);
    return origin;
}

bool isLocalHost(const QUrl& url)
{
    const QString host = url.host().toLower();
    return host == QLatin1String("localhost") || host == QLatin1String("127.0.0.1");
}

QUrl updateFeedUrl()
{
    const QString configured = qEnvironmentVariable("VANTRO_SIGN_UPDATE_FEED_URL").trimmed();
    if (!configured.isEmpty() && environmentFlagOn("VANTRO_SIGN_ALLOW_LOCAL_UPDATE_FEED")) {
        const QUrl url(configured, QUrl::StrictMode);
        if (url.isValid())
            return url;
    }
    return QUrl(QString::fromLatin1(config::kUpdateOrigin) + QString::fromLatin1(kFeedPath));
}

UpdateManifest validateManifest(const QByteArray& body, const QUrl& feedUrl,
                                const QString& installedVersion, bool allowLocalFeed)
{
    if (body.isEmpty() || body.size() > kMaxManifestBytes)
        return rejected("Update manifest size is invalid.");
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(body, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject())
        return rejected("Update manifest is not valid JSON.");
    const QJsonObject json = document.object();
    if (json.value(QStringLiteral("schemaVersion")).toInt(0) != 1 ||
        json.value(QStringLiteral("product")).toString() != kProduct)
        return rejected("Update manifest product or schema is invalid.");
    UpdateManifest manifest;
    if (const char* broken = brokenRule(json, manifest, feedUrl, installedVersion, allowLocalFeed))
        return rejected(broken);
    manifest.valid = true;
    return manifest;
}

QByteArray manifestJson(const UpdateManifest& manifest)
{
    const QJsonObject json{
        {QStringLiteral("schemaVersion"), 1},
        {QStringLiteral("product"), kProduct},
        {QStringLiteral("version"), manifest.version},
        {QStringLiteral("buildId"), manifest.buildId},
        {QStringLiteral("installerFileName"), manifest.installerFileName},
        {QStringLiteral("installerUrl"), manifest.installerUrl.toString()},
        {QStringLiteral("installerSize"), double(manifest.installerSize)},
        {QStringLiteral("sha512"), QString::fromLatin1(manifest.sha512.toBase64())},
        {QStringLiteral("publisher"), manifest.publisher},
    };
    return QJsonDocument(json).toJson(QJsonDocument::Compact);
}

bool writeReadyRecord(const QString& updatesDir, const UpdateManifest& manifest)
{
    QSaveFile file(QDir(updatesDir).filePath(kReadyRecord));
    if (!QDir().mkpath(updatesDir) || !file.open(QIODevice::WriteOnly) ||
        file.write(manifestJson(manifest)) < 0 || !file.commit()) {
        qCWarning(lcUpdate).noquote() << "could not write the ready record:" << file.errorString();
        return false;
    }
    return true;
}

UpdateManifest readReadyRecord(const QString& updatesDir, const QString& installedVersion)
{
    const QDir dir(updatesDir);
    QFile file(dir.filePath(kReadyRecord));
    if (!file.open(QIODevice::ReadOnly))
        return rejected("No verified update is kept.");
    const UpdateManifest manifest =
        validateManifest(file.read(kMaxManifestBytes + 1), updateFeedUrl(), installedVersion,
                         environmentFlagOn("VANTRO_SIGN_ALLOW_LOCAL_UPDATE_FEED"));
    file.close();
    const QFileInfo installer(dir.filePath(manifest.installerFileName));
    if (manifest.valid && manifest.newer && installer.isFile() &&
        installer.size() == manifest.installerSize)
        return manifest;
    qCInfo(lcUpdate).noquote() << "discarding the ready record:"
                               << (manifest.valid ? QStringLiteral("no longer usable")
                                                  : manifest.error);
    file.remove();
    return rejected("The kept update is no longer usable.");
}

} // namespace vantro
