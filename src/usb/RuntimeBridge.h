#pragma once

#include <QObject>
#include <QString>
#include <QUrl>

#include <functional>

namespace vantro {

// The folder where the card host keeps saved PINs: %LOCALAPPDATA%/Vantro/HighRisk, or, with
// LOCALAPPDATA unset or empty, the per-user data location joined with "Vantro/HighRisk".
QString defaultStoredPinDirectory();

// Whether a file name is a saved PIN: "*.dpapi", but not the host's install nonce or its
// attempt counters ("*.attempts.dpapi"). Case is ignored.
bool isStoredPinFileName(const QString& fileName);

// Saved PINs in `directory`; 0 when it does not exist.
int countStoredPins(const QString& directory);

// The saved-PIN state the diagnostics view, the tray and the helper status show. The files
// belong to the card host: they are only counted, shown and deleted here, never read.
class RuntimeBridge : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString version READ version CONSTANT)
    Q_PROPERTY(QString qtVersion READ qtVersion CONSTANT)
    Q_PROPERTY(QString storedPinDirectory READ storedPinDirectory CONSTANT)
    Q_PROPERTY(int savedPinCount READ savedPinCount NOTIFY savedPinStateChanged)
    Q_PROPERTY(bool storedPinAvailable READ storedPinAvailable NOTIFY savedPinStateChanged)
    Q_PROPERTY(QString lastMessage READ lastMessage NOTIFY lastMessageChanged)
public:
    using UrlOpener = std::function<bool(const QUrl&)>;

    explicit RuntimeBridge(QObject* parent = nullptr);
    RuntimeBridge(QString storedPinDirectory, QObject* parent);

    QString version() const;
    QString qtVersion() const;
    QString storedPinDirectory() const { return m_directory; }
    int savedPinCount() const { return m_count; }
    bool storedPinAvailable() const { return m_count > 0; }
    QString lastMessage() const { return m_lastMessage; }

    // How the folder is shown; the window passes the desktop's URL handler.
    void setUrlOpener(UrlOpener opener) { m_openUrl = std::move(opener); }

public Q_SLOTS:
    void refresh();
    void clearStoredPins();
    bool openStoredPinFolder();

Q_SIGNALS:
    void savedPinStateChanged();
    void lastMessageChanged();

private:
    void setLastMessage(const QString& text);

    QString m_directory;
    int m_count = 0;
    QString m_lastMessage;
    UrlOpener m_openUrl;
};

} // namespace vantro
