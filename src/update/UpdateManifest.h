#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <optional>

namespace vantro {

// MAJOR.MINOR.PATCH[-PRE][+BUILD]; build metadata is accepted and ignored.
struct SemanticVersion
{
    quint64 major = 0;
    quint64 minor = 0;
    quint64 patch = 0;
    QString preRelease;
};

std::optional<SemanticVersion> parseSemanticVersion(const QString& text);
// -1, 0 or 1; a release is above its pre-releases, pre-release pieces compare numerically when
// both are numbers, a number is below text, and the shorter list of equal pieces is lower.
int compareSemanticVersions(const SemanticVersion& a, const SemanticVersion& b);

// "1", "true", "yes" or "on" after trimming, any case; off when unset.
bool environmentFlagOn(const char* name);

// scheme://host[:port] in lower case, the default port left out; empty for an unusable URL.
QString urlOrigin(const QUrl& url);

// "localhost" or "127.0.0.1": the hosts a local feed may use.
bool isLocalHost(const QUrl& url);

// VANTRO_SIGN_UPDATE_FEED_URL when VANTRO_SIGN_ALLOW_LOCAL_UPDATE_FEED is on and it is a valid
// URL; otherwise the built-in feed on the update download origin.
QUrl updateFeedUrl();

// A manifest that passed every rule, or `valid` false with the first broken rule's message.
struct UpdateManifest
{
    bool valid = false;
    QString error;
    bool newer = false;
    QString version;
    QString buildId;
    QString installerFileName;
    QUrl installerUrl;
    qint64 installerSize = 0;
    QByteArray sha512; // the 64 raw digest bytes
    QString publisher;
};

constexpr qint64 kMaxManifestBytes = 65536;
constexpr qint64 kMaxInstallerBytes = 0x20000000; // 512 MiB

// Checks a feed answer rule by rule; never throws, never touches the network or the disk.
UpdateManifest validateManifest(const QByteArray& body, const QUrl& feedUrl,
                                const QString& installedVersion, bool allowLocalFeed);

// The manifest as its nine-key JSON object, as "ready.json" keeps it.
QByteArray manifestJson(const UpdateManifest& manifest);

// "ready.json" in `updatesDir`, written through a temporary file and committed. False when it
// could not be written.
bool writeReadyRecord(const QString& updatesDir, const UpdateManifest& manifest);

// The record read back and validated again; kept only when still valid, still newer and the
// installer it names lies in `updatesDir` with exactly its size. Anything else deletes the
// record and answers an invalid manifest.
UpdateManifest readReadyRecord(const QString& updatesDir, const QString& installedVersion);

} // namespace vantro
