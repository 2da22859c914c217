// The update states, the feed check and the install. The download and the checks of the
// downloaded file are in UpdateDownload.cpp.
#include "update/UpdateManager.h"

#include "update/Logging.h"
#include "vantro_config.h"

#include <QDir>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QProcess>

#include <utility>

namespace vantro {

namespace {

constexpr int kTransferTimeoutMs = 30000;
const QString kInstallTitle = QStringLiteral("Įdiegti Vantro Sign naujinimą");

QString applicationVersion()
{
    return QString::fromLatin1(config::kApplicationVersion);
}

} // namespace

bool launchInstaller(const QString& path)
{
    const QFileInfo installer(path);
    return QProcess::startDetached(installer.absoluteFilePath(), {}, installer.absolutePath());
}

UpdateManager::UpdateManager(QString updatesDir, QObject* parent)
    : QObject(parent)
    , m_updatesDir(std::move(updatesDir))
    , m_trustStore(QString::fromUtf8(config::kUpdateTrustStore))
    , m_network(new QNetworkAccessManager(this))
{
    qRegisterMetaType<OrderedObject>();
}

// Nothing may report back into a manager being destroyed: the reply and the signature check
// are cut off first.
UpdateManager::~UpdateManager()
{
    if (m_reply) {
        m_reply->disconnect(this);
        m_reply->abort();
    }
    if (m_signatureCheck)
        m_signatureCheck->disconnect(this);
}

QString UpdateManager::action() const
{
    if (m_state == QLatin1String("available") || m_state == QLatin1String("download_failed") ||
        m_state == QLatin1String("verify_failed"))
        return QStringLiteral("download");
    if (m_state == QLatin1String("downloading"))
        return QStringLiteral("cancel");
    if (m_state == QLatin1String("ready") || m_state == QLatin1String("install_failed"))
        return QStringLiteral("install");
    if (m_state == QLatin1String("checking") || m_state == QLatin1String("verifying"))
        return QString();
    return QStringLiteral("check");
}

OrderedObject UpdateManager::status() const
{
    const int progress = m_bytesTotal >= 1 ? int(m_bytesReceived * 100 / m_bytesTotal) : 0;
    return OrderedObject{
        {QStringLiteral("state"), m_state},
        {QStringLiteral("action"), action()},
        {QStringLiteral("currentVersion"), applicationVersion()},
        {QStringLiteral("version"), m_manifest.version},
        {QStringLiteral("message"), m_message},
        {QStringLiteral("progress"), progress},
        {QStringLiteral("downloadedPathAvailable"),
         !m_downloadedPath.isEmpty() && QFileInfo::exists(m_downloadedPath)},
    };
}

void UpdateManager::setState(const QString& state, const QString& message)
{
    m_state = state;
    setMessage(message);
}

void UpdateManager::setMessage(const QString& message)
{
    m_message = message;
    qCWarning(lcUpdate, "Vantro Sign updater: %s", qUtf8Printable(message));
    Q_EMIT statusChanged(status());
}

QNetworkReply* UpdateManager::get(const QUrl& url)
{
    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::UserAgentHeader,
                      QStringLiteral("VantroSignNext/%1").arg(applicationVersion()));
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setTransferTimeout(kTransferTimeoutMs);
    m_reply = m_network->get(request);
    return m_reply;
}

void UpdateManager::restoreReady()
{
    const UpdateManifest kept = readReadyRecord(m_updatesDir, applicationVersion());
    if (kept.valid) {
        m_manifest = kept;
        m_downloadedPath = installerPath();
    }
    removeStaleFiles(m_downloadedPath);
    if (kept.valid)
        setState(QStringLiteral("ready"), QStringLiteral("Naujinimas paruoštas diegti."));
}

void UpdateManager::checkForUpdates(bool interactive)
{
    if (m_state == QLatin1String("checking") || m_state == QLatin1String("downloading") ||
        m_state == QLatin1String("verifying"))
        return; // one network reply and one verification at a time
    m_promptOnReady = interactive;
    setState(QStringLiteral("checking"), QStringLiteral("Tikrinama, ar yra naujesnė versija."));
    QNetworkReply* reply = get(updateFeedUrl());
    // A feed answer longer than any manifest is cut off as soon as it shows.
    auto tooLarge = std::make_shared<bool>(false);
    connect(reply, &QNetworkReply::downloadProgress, this, [reply, tooLarge](qint64 received) {
        if (received > kMaxManifestBytes && !*tooLarge) {
            *tooLarge = true;
            reply->abort();
        }
    });
    connect(reply, &QNetworkReply::finished, this,
            [this, reply, tooLarge] { finishCheck(reply, *tooLarge); });
}

void UpdateManager::finishCheck(QNetworkReply* reply, bool tooLarge)
{
    reply->deleteLater();
    if (!tooLarge && reply->error() != QNetworkReply::NoError) {
        setState(QStringLiteral("check_failed"),
                 QStringLiteral("Nepavyko patikrinti naujinimų: %1").arg(reply->errorString()));
        return;
    }
    const QByteArray body = tooLarge ? QByteArray(kMaxManifestBytes + 1, ' ') : reply->readAll();
    const UpdateManifest manifest =
        validateManifest(body, reply->request().url(), applicationVersion(),
                         environmentFlagOn("VANTRO_SIGN_ALLOW_LOCAL_UPDATE_FEED"));
    if (!manifest.valid) {
        setState(QStringLiteral("check_failed"),
                 QStringLiteral("Naujinimo manifestas atmestas: %1").arg(manifest.error));
        return;
    }
    if (!manifest.newer) {
        setState(QStringLiteral("current"),
                 QStringLiteral("Naudojate naujausią Vantro Sign versiją."));
        return;
    }
    const bool held = !m_downloadedPath.isEmpty() && QFileInfo::exists(m_downloadedPath) &&
                      m_manifest.version == manifest.version;
    m_manifest = manifest;
    if (held)
        setState(QStringLiteral("ready"), QStringLiteral("Naujinimas paruoštas diegti."));
    else
        setState(QStringLiteral("available"),
                 QStringLiteral("Prieinamas Vantro Sign %1 naujinimas.").arg(manifest.version));
}

void UpdateManager::applyUpdate()
{
    if (action() != QLatin1String("install"))
        return;
    if (m_downloadedPath.isEmpty() || !QFileInfo::exists(m_downloadedPath)) {
        setState(QStringLiteral("download_failed"),
                 QStringLiteral("Naujinimo failą reikia atsisiųsti dar kartą."));
        return;
    }
    askToInstall();
}

void UpdateManager::askToInstall()
{
    const QString question =
        QStringLiteral("Vantro Sign %1 naujinimas atsisiųstas ir patikrintas.\n\nDabar paleisti "
                       "diegimą? Windows parodys administratoriaus (UAC) patvirtinimą.")
            .arg(m_manifest.version);
    if (!m_shell || !m_shell->confirmInstall(kInstallTitle, question)) {
        setMessage(QStringLiteral("Naujinimas lieka paruoštas. Galite jį įdiegti vėliau."));
        return;
    }
    if (!launchInstaller(m_downloadedPath)) {
        setState(QStringLiteral("install_failed"),
                 QStringLiteral("Nepavyko paleisti naujinimo diegimo programos."));
        return;
    }
    qCInfo(lcUpdate).noquote() << "installer started:" << m_downloadedPath;
    m_shell->quitApplication();
}

QString UpdateManager::installerPath() const
{
    return QDir(m_updatesDir).absoluteFilePath(m_manifest.installerFileName);
}

void UpdateManager::removeStaleFiles(const QString& keep) const
{
    const QDir dir(m_updatesDir);
    const QStringList stale = dir.entryList({QStringLiteral("VantroSignNextSetup-*.exe"),
                                             QStringLiteral("VantroSignNextSetup-*.exe.part")},
                                            QDir::Files | QDir::Hidden);
    for (const QString& name : stale) {
        const QString path = dir.absoluteFilePath(name);
        if (path != keep && !QFile::remove(path))
            qCWarning(lcUpdate).noquote() << "could not remove a stale update file" << path;
    }
}

} // namespace vantro
