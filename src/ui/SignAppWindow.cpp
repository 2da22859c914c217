#include "ui/SignAppWindow.h"

// Minimal window so the executable links while the web host is being built.
namespace vantro {

SignAppWindow::SignAppWindow(QWidget* parent) : QMainWindow(parent)
{
    setWindowTitle(QStringLiteral("Vantro Sign"));
    resize(1200, 800);
}

SignAppWindow::~SignAppWindow() = default;

void SignAppWindow::showAndRaise()
{
    showNormal();
    raise();
    activateWindow();
}

void SignAppWindow::handleActivationLink(const QString&) {}
void SignAppWindow::openActivationScreen() {}
void SignAppWindow::openDiagnostics() {}
void SignAppWindow::removeSavedPins() {}
void SignAppWindow::openPinFolder() {}
void SignAppWindow::reloadWebApp() {}
void SignAppWindow::checkForProgramUpdates() {}

} // namespace vantro
