// The update download into "<installer>.part" and the checks of the finished file: its size,
// its SHA-512 on the thread pool, and the platform's signature check.
#include "app/FileHash.h"
#include "platform/InstallerSignature.h"
#include "update/Logging.h"
#include "update/UpdateManager.h"
#include "vantro_config.h"

#include <QDir>
#include <QFileInfo>
#include <QFutureWatcher>
#include <QNetworkReply>
#include <QProcess>
#include <QtConcurrent/QtConcurrentRun>
#include <QThreadPool>

namespace vantro {

namespace {

const QString kRulesBroken =
    QStringLiteral("Naujinimo atsisiuntimas pažeidė leistino dydžio arba HTTPS kilmės taisyklę.");

// The digest, or empty when the file could not be read.
QByteArray digestOrEmpty(const QString& path)
{
    try {
        return sha512File(path);
    } catch (const std::exception& failure) {
        qCWarning(lcUpdate).noquote() << "update digest failed:" << failure.what();
        return {};
    }
}

} // namespace

void UpdateManager::startUpdate()
{
    if (action() != QLatin1String("download"))
        return;
    removeStaleFiles(m_downloadedPath);
    if (!openPartFile())
        return;
    m_bytesReceived = 0;
    m_bytesTotal = m_manifest.installerSize;
    setState(QStringLiteral("downloading"),
             QStringLiteral("Atsisiunčiamas Vantro Sign %1 naujinimas.").arg(m_manifest.version));
    QNetworkReply* reply = get(m_manifest.installerUrl);
    connect(reply, &QNetworkReply::redirected, this, [this](const QUrl& target) {
        if (!followsDownloadRules(target))
            breakDownloadRules();
    });
    connect(reply, &QNetworkReply::readyRead, this, &UpdateManager::receiveChunk);
    connect(reply, &QNetworkReply::finished, this, &UpdateManager::finishDownload);
}

bool UpdateManager::openPartFile()
{
    QDir().mkpath(m_updatesDir);
    m_part.setFileName(installerPath() + QStringLiteral(".part"));
    QFile::remove(m_part.fileName());
    if (m_part.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return true;
    setState(QStringLiteral("download_failed"),
             QStringLiteral("Nepavyko sukurti naujinimo failo: %1").arg(m_part.errorString()));
    return false;
}

// The installer must come from the manifest's own origin, over HTTPS unless the feed is local.
bool UpdateManager::followsDownloadRules(const QUrl& url) const
{
    const bool local = environmentFlagOn("VANTRO_SIGN_ALLOW_LOCAL_UPDATE_FEED") && isLocalHost(url);
    return urlOrigin(url) == urlOrigin(m_manifest.installerUrl) &&
           (url.scheme() == QLatin1String("https") || local);
}

void UpdateManager::breakDownloadRules()
{
    QNetworkReply* reply = m_reply;
    m_reply = nullptr; // its finished signal must not report a second outcome
    if (reply) {
        reply->disconnect(this);
        reply->abort();
        reply->deleteLater();
    }
    m_part.close();
    setState(QStringLiteral("download_failed"), kRulesBroken);
}

void UpdateManager::receiveChunk()
{
    if (m_reply && m_reply == sender())
        takeChunk();
}

// Appends what arrived; more than the manifest's size, or an address outside the installer's
// origin, ends the download at once.
void UpdateManager::takeChunk()
{
    const QByteArray chunk = m_reply->readAll();
    if (m_bytesReceived + chunk.size() > m_bytesTotal || !followsDownloadRules(m_reply->url())) {
        breakDownloadRules();
        return;
    }
    if (m_part.write(chunk) != chunk.size()) {
        m_reply->abort(); // finishDownload reports it
        return;
    }
    const qint64 before = m_bytesReceived * 100 / m_bytesTotal;
    m_bytesReceived += chunk.size();
    if (m_bytesReceived * 100 / m_bytesTotal != before)
        Q_EMIT statusChanged(status());
}

void UpdateManager::finishDownload()
{
    QNetworkReply* reply = m_reply;
    if (!reply || reply != sender())
        return; // cancelled or refused already
    takeChunk();
    if (m_state != QLatin1String("downloading"))
        return; // the last chunk broke a rule
    m_reply = nullptr;
    reply->deleteLater();
    const bool written = m_part.flush();
    m_part.close();
    if (reply->error() != QNetworkReply::NoError || !written) {
        const QString why = written ? reply->errorString() : m_part.errorString();
        setState(QStringLiteral("download_failed"),
                 QStringLiteral("Naujinimo atsisiųsti nepavyko: %1").arg(why));
        return;
    }
    if (QFileInfo(m_part.fileName()).size() != m_manifest.installerSize) {
        setState(QStringLiteral("download_failed"),
                 QStringLiteral("Atsisiųsto naujinimo dydis neatitinka manifesto."));
        return;
    }
    const QString target = installerPath();
    QFile::remove(target);
    if (!QFile::rename(m_part.fileName(), target)) {
        setState(QStringLiteral("download_failed"),
                 QStringLiteral("Nepavyko užbaigti naujinimo failo."));
        return;
    }
    verifyDigest(target);
}

void UpdateManager::cancelUpdate()
{
    if (m_state != QLatin1String("downloading"))
        return;
    QNetworkReply* reply = m_reply;
    m_reply = nullptr;
    if (reply) {
        reply->disconnect(this);
        reply->abort();
        reply->deleteLater();
    }
    m_part.close();
    m_bytesReceived = 0;
    setState(QStringLiteral("available"),
             QStringLiteral("Naujinimo atsisiuntimas atšauktas. Galite tęsti vėliau."));
}

void UpdateManager::verifyDigest(const QString& path)
{
    setState(QStringLiteral("verifying"),
             QStringLiteral("Tikrinama naujinimo SHA-512 kontrolinė suma."));
    auto* watcher = new QFutureWatcher<QByteArray>(this);
    connect(watcher, &QFutureWatcherBase::finished, this, [this, watcher, path] {
        const QByteArray digest = watcher->result();
        watcher->deleteLater();
        if (digest.isEmpty())
            setState(QStringLiteral("verify_failed"),
                     QStringLiteral("Nepavyko perskaityti naujinimo kontrolinės sumos."));
        else if (digest != m_manifest.sha512)
            setState(QStringLiteral("verify_failed"),
                     QStringLiteral("Naujinimo SHA-512 kontrolinė suma neteisinga."));
        else
            verifySignature(path);
    });
    watcher->setFuture(QtConcurrent::run(QThreadPool::globalInstance(), digestOrEmpty, path));
}

void UpdateManager::verifySignature(const QString& path)
{
    setMessage(QStringLiteral("Tikrinamas naujinimo skaitmeninis parašas."));
    const platform::SignatureCommand command = platform::signatureCommand(path, m_trustStore);
    m_signatureCheck = new QProcess(this);
    m_signatureCheck->setProcessEnvironment(command.environment);
    connect(m_signatureCheck, &QProcess::finished, this, [this, path] { finishSignature(path); });
    connect(m_signatureCheck, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error != QProcess::FailedToStart)
            return;
        m_signatureCheck->deleteLater();
        m_signatureCheck = nullptr;
        setState(QStringLiteral("verify_failed"),
                 QStringLiteral("Nepavyko paleisti Windows skaitmeninio parašo tikrinimo."));
    });
    m_signatureCheck->start(command.program, command.arguments);
}

void UpdateManager::finishSignature(const QString& path)
{
    QProcess* check = std::exchange(m_signatureCheck, nullptr);
    check->deleteLater();
    const platform::SignatureReport report =
        platform::readSignatureReport(check->readAllStandardOutput());
    const bool trusted = check->exitStatus() == QProcess::NormalExit && check->exitCode() == 0 &&
                         report.readable && report.status == QLatin1String("Valid") &&
                         report.signerName == QString::fromUtf8(config::kPublisherName) &&
                         report.timestamped;
    if (!trusted) {
        const QString errors = QString::fromUtf8(check->readAllStandardError()).trimmed();
        qCInfo(lcUpdate).noquote()
            << "installer signature refused: status" << report.status << "signer"
            << report.signerName << "timestamped" << report.timestamped;
        setState(QStringLiteral("verify_failed"),
                 QStringLiteral("Naujinimo skaitmeninis parašas nepatikimas. Diegimas "
                                "sustabdytas. %1")
                     .arg(errors));
        return;
    }
    writeReadyRecord(m_updatesDir, m_manifest);
    m_downloadedPath = path;
    setState(QStringLiteral("ready"),
             QStringLiteral("Vantro Sign %1 naujinimas paruoštas diegti.").arg(m_manifest.version));
    if (m_promptOnReady)
        askToInstall();
}

} // namespace vantro
