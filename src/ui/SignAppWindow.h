#pragma once

#include "bridge/BridgeChannel.h"
#include "update/UpdateManager.h"

#include <QMainWindow>
#include <QPointer>
#include <QString>
#include <QStringList>

#include <memory>

class QMessageBox;
class QTimer;

namespace vantro {

class AppState;
class RuntimeBridge;
class SignApiClient;
class DesktopBridge;
class DesktopShell;
class SystemDesktopShell;
class WebHost;
class UpdateManager;
class DiagnosticsView;
class ActivationScreen;
class LocalRootWatch;
class MirrorRetry;
struct DropImportOutcome;

// The main window: builds the components in their fixed order and hosts the web application.
// The tray menu and the handoff receiver drive it through the public slots below.
class SignAppWindow : public QMainWindow, private CompletionHooks, private UpdateShell
{
    Q_OBJECT
public:
    explicit SignAppWindow(QWidget* parent = nullptr);
    ~SignAppWindow() override;

    AppState* appState() const { return m_state; }
    SignApiClient* apiClient() const { return m_api; }
    DesktopBridge* desktopBridge() const { return m_bridge; }
    BridgeChannel* bridgeChannel() const { return m_channel; }
    WebHost* webHost() const { return m_web; }
    LocalRootWatch* localRootWatch() const { return m_rootWatch; }
    MirrorRetry* mirrorRetry() const { return m_mirrorRetry; }
    RuntimeBridge* runtimeBridge() const { return m_runtime; }
    UpdateManager* updateManager() const { return m_updates; }
    DiagnosticsView* diagnosticsView() const;
    ActivationScreen* activationScreen() const;

    // Dialogs and opening addresses go through `shell`; null restores the system desktop.
    void setDesktopShell(DesktopShell* shell);

public Q_SLOTS:
    void showAndRaise();
    void handleActivationLink(const QString& link);
    void receiveHandoff();
    void openActivationScreen();
    void openDiagnostics();
    void removeSavedPins();
    void openPinFolder();
    void reloadWebApp();
    void checkForProgramUpdates();
    // Imports files dropped on the window off the main thread and tells the page.
    void importDroppedFiles(const QStringList& paths);

Q_SIGNALS:
    void trayNotification(const QString& title, const QString& text);
    // A notice the user was shown in a message box (features not present in this build).
    void noticeShown(const QString& text);

private:
    void buildWebHost();
    void buildHelpMenu();
    void buildUpdateManager();
    void activateDevice(const QString& code, const QString& linkBase);
    void watchLocalRoot();
    void retryMirrorQueue();
    // Switches to the web application; an activated device first tells the service it is here.
    void openWebApp();
    void applyStateTheme();
    void emitDropState(bool active);
    void finishDropImport(const QStringList& paths, const DropImportOutcome& outcome);
    void showNotice(const QString& text);

    // CompletionHooks
    void showNativePreview(const QVariant& prepared) override;
    void openPreparedDefault(const QVariant& prepared) override;
    void completeArtifactReveal(const QVariant& value) override;

    // UpdateShell
    bool confirmInstall(const QString& title, const QString& text) override;
    void quitApplication() override;

    AppState* m_state = nullptr;
    RuntimeBridge* m_runtime = nullptr;
    SignApiClient* m_api = nullptr;
    DesktopBridge* m_bridge = nullptr;
    UpdateManager* m_updates = nullptr;
    QTimer* m_updateChecks = nullptr;
    BridgeChannel* m_channel = nullptr;
    WebHost* m_web = nullptr;
    LocalRootWatch* m_rootWatch = nullptr;
    MirrorRetry* m_mirrorRetry = nullptr;
    std::unique_ptr<SystemDesktopShell> m_systemShell;
    DesktopShell* m_shell = nullptr;
    QPointer<QMessageBox> m_notice;
    QPointer<DiagnosticsView> m_diagnostics;
    QPointer<ActivationScreen> m_activation;
    bool m_activating = false;
    int m_dropImportsRunning = 0;
};

} // namespace vantro
