#pragma once

#include "app/OrderedJson.h"
#include "update/UpdateManifest.h"

#include <QFile>
#include <QObject>
#include <QPointer>
#include <QString>

class QNetworkAccessManager;
class QNetworkReply;
class QProcess;

namespace vantro {

// What the update flow needs from the desktop: the install question and quitting so that the
// installer can replace the program. The window implements it; tests substitute their own.
class UpdateShell
{
public:
    virtual ~UpdateShell() = default;
    virtual bool confirmInstall(const QString& title, const QString& text) = 0;
    virtual void quitApplication() = 0;
};

// Starts the installer detached, without arguments, in its own folder.
bool launchInstaller(const QString& path);

// The self-update flow on the GUI thread: feed check, download to "<installer>.part" in the
// updates folder, SHA-512 on the thread pool, the platform's signature check, "ready.json",
// and the install after the user agrees. Every failure is a state with its Lithuanian message.
class UpdateManager : public QObject
{
    Q_OBJECT
public:
    explicit UpdateManager(QString updatesDir, QObject* parent = nullptr);
    ~UpdateManager() override;

    void setShell(UpdateShell* shell) { m_shell = shell; }
    // The PEM roots the Linux signature check trusts; the deployment's by default.
    void setTrustStore(const QString& path) { m_trustStore = path; }

    QString state() const { return m_state; }
    QString action() const;
    // state, action, currentVersion, version, message, progress, downloadedPathAvailable.
    OrderedObject status() const;

    // Start-up: keeps a verified installer named by "ready.json" and clears stale downloads.
    void restoreReady();

public Q_SLOTS:
    // `interactive` checks (tray, page) ask to install as soon as a download is verified.
    void checkForUpdates(bool interactive);
    void startUpdate();
    void cancelUpdate();
    void applyUpdate();

Q_SIGNALS:
    void statusChanged(const vantro::OrderedObject& status);

private:
    void setState(const QString& state, const QString& message);
    void setMessage(const QString& message);
    QNetworkReply* get(const QUrl& url);
    void finishCheck(QNetworkReply* reply, bool tooLarge);
    bool openPartFile();
    void receiveChunk();
    void takeChunk();
    void finishDownload();
    bool followsDownloadRules(const QUrl& url) const;
    void breakDownloadRules();
    void verifyDigest(const QString& path);
    void verifySignature(const QString& path);
    void finishSignature(const QString& path);
    void askToInstall();
    void removeStaleFiles(const QString& keep) const;
    QString installerPath() const;

    QString m_updatesDir;
    QString m_trustStore;
    UpdateShell* m_shell = nullptr;
    QNetworkAccessManager* m_network = nullptr;
    QPointer<QNetworkReply> m_reply;
    QProcess* m_signatureCheck = nullptr;
    QFile m_part;
    UpdateManifest m_manifest;
    QString m_state = QStringLiteral("idle");
    QString m_message;
    QString m_downloadedPath;
    qint64 m_bytesReceived = 0;
    qint64 m_bytesTotal = 0;
    bool m_promptOnReady = false;
};

} // namespace vantro
