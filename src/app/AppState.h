#pragma once

#include "app/OrderedJson.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QStringList>

namespace vantro {

namespace platform {
class SecretStore;
}

// Owner of the per-user settings and device identity, mirrored to "device.json".
// Getters normalise on every read, so a hand-edited or old file never yields an invalid value;
// setters save the whole file and then emit changed(). A setter whose save failed answers false
// (lastError() says why) and its value stays in effect until the program ends.
class AppState : public QObject
{
    Q_OBJECT
public:
    // Uses dataDir()/device.json.
    explicit AppState(QObject* parent = nullptr);
    // Uses the given file; tests and worker threads point several states at one file.
    explicit AppState(const QString& deviceJsonPath, QObject* parent = nullptr);
    ~AppState() override;

    // The per-user application data location, or ~/.vantro-sign when that is empty.
    static QString dataDir();
    static const QStringList& visualPositions();

    QString filePath() const { return m_path; }
    // Text of the most recent failure of load, save or ensureLocalRoot.
    QString lastError() const { return m_lastError; }

    bool load();
    bool save();

    QString deviceId() const;
    QString deviceSecret() const;
    QString workspaceId() const;
    QString appUrl() const;
    QJsonObject license() const;
    QJsonObject signerProfile() const;
    QString localRoot() const;
    QString theme() const;
    QJsonObject localDeleteSettings() const;
    bool isActivated() const;

    bool setLocalRoot(const QString& path);
    bool ensureLocalRoot();
    bool setTheme(const QString& value);
    bool setLocalDeleteSettings(const QJsonObject& settings);
    bool setSignerVisualPosition(const QString& position);
    // Everything a device activation grants, written together.
    struct Activation
    {
        QString deviceId;
        QString secret;
        QString workspaceId;
        QString appUrl;
        QString apiBase;
        QJsonObject license;
        QJsonObject signerProfile;
        QJsonObject record; // the service's answer, secret left out
    };
    // Writes the whole grant in one save, the secret protected. When the save fails nothing of
    // it stays, in memory or on disk, and false is answered.
    bool applyActivation(const Activation& activation);

    // Stores the activation outcome (device identity and the raw record); the secret is protected.
    bool setDeviceIdentity(const QString& deviceId, const QString& secret,
                           const QString& workspaceId, const QJsonObject& activation = {});

    // The status object for "sign:getStatus", keys in their fixed order. `helper` is the
    // helper-runtime object; missing helper keys take their defaults.
    OrderedObject status(const OrderedObject& helper = {}) const;

    // Exposed for tests and diagnostics: the raw in-memory object.
    QJsonObject raw() const { return m_root; }

    static QString sanitizeFolderName(const QString& name);

    // Replaces the operating system's secret protection (tests); the store must outlive this.
    void setSecretStore(platform::SecretStore* store);

Q_SIGNALS:
    void changed();

private:
    bool commit();
    bool reportError(const QString& error);
    QString stringValue(const QString& key) const;
    QString protectSecret(const QString& secret) const;
    QString revealSecret(const QString& stored) const;

    QString m_path;
    QJsonObject m_root;
    QString m_lastError;
    platform::SecretStore* m_secrets = nullptr;
    mutable QString m_cachedProtected;
    mutable QString m_cachedSecret;
};

} // namespace vantro
