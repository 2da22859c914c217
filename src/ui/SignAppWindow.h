#pragma once

#include <QMainWindow>
#include <QString>

namespace vantro {

class AppState;
class SignApiClient;
class DesktopBridge;

// The main window: builds the components in their fixed order and hosts the web application.
// The tray menu and the handoff receiver drive it through the public slots below.
class SignAppWindow : public QMainWindow
{
    Q_OBJECT
public:
    explicit SignAppWindow(QWidget* parent = nullptr);
    ~SignAppWindow() override;

    AppState* appState() const { return m_state; }
    SignApiClient* apiClient() const { return m_api; }
    DesktopBridge* desktopBridge() const { return m_bridge; }

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

Q_SIGNALS:
    void trayNotification(const QString& title, const QString& text);

private:
    AppState* m_state = nullptr;
    SignApiClient* m_api = nullptr;
    DesktopBridge* m_bridge = nullptr;
};

} // namespace vantro
