#include "ui/Application.h"

#include "app/ActivationLink.h"
#include "app/Handoff.h"
#include "app/InstanceLog.h"
#include "app/Paths.h"
#include "app/StartOptions.h"
#include "platform/ComApartment.h"
#include "platform/TerminationRequest.h"
#include "ui/SignAppWindow.h"
#include "vantro_config.h"

#include <QApplication>
#include <QDir>
#include <QFileSystemWatcher>
#include <QIcon>
#include <QLockFile>
#include <QMenu>
#include <QMessageBox>
#include <QSystemTrayIcon>
#include <QTimer>

#include <memory>

namespace vantro {

namespace {

constexpr int kLockStaleMs = 5000;
constexpr int kHandoffPollMs = 5000;
constexpr int kTrayMessageMs = 8000;

void setIdentity(QApplication& app)
{
    QCoreApplication::setOrganizationName(QString::fromUtf8(config::kOrganizationName));
    QCoreApplication::setOrganizationDomain(QString::fromUtf8(config::kOrganizationDomain));
    QCoreApplication::setApplicationName(QString::fromUtf8(config::kApplicationName));
    QCoreApplication::setApplicationVersion(QString::fromUtf8(config::kApplicationVersion));
    app.setQuitOnLastWindowClosed(false);
}

void showComFailure(long result)
{
    QMessageBox box(QMessageBox::Critical, QStringLiteral("Vantro Sign"), comFailureText(result),
                    QMessageBox::Ok);
    box.exec();
}

// The primary instance's objects. Members are declared in construction order, so they are
// destroyed in the required reverse order: timer, watcher, tray icon, menu, window, icon.
class PrimaryInstance
{
public:
    explicit PrimaryInstance(const StartOptions& options);

private:
    void buildMenu();
    void buildTray();
    void watchCommands();
    void presentWindow(const StartOptions& options);

    QIcon m_icon;
    std::unique_ptr<SignAppWindow> m_window;
    std::unique_ptr<QMenu> m_menu;
    std::unique_ptr<QSystemTrayIcon> m_tray;
    std::unique_ptr<QFileSystemWatcher> m_watcher;
    std::unique_ptr<QTimer> m_timer;
};

PrimaryInstance::PrimaryInstance(const StartOptions& options)
    : m_icon(QStringLiteral(":/qt/qml/Vantro/Sign/brand/vantro-mark.svg"))
    , m_window(std::make_unique<SignAppWindow>())
{
    buildMenu();
    buildTray();
    watchCommands();
    presentWindow(options);
}

void PrimaryInstance::buildMenu()
{
    SignAppWindow* window = m_window.get();
    m_menu = std::make_unique<QMenu>();
    const auto add = [this, window](const QString& text, void (SignAppWindow::*slot)()) {
        QObject::connect(m_menu->addAction(text), &QAction::triggered, window, slot);
    };
    add(QStringLiteral("Atidaryti Vantro Sign"), &SignAppWindow::showAndRaise);
    add(QStringLiteral("Aktyvuoti šį kompiuterį"), &SignAppWindow::openActivationScreen);
    add(QStringLiteral("Diagnostika"), &SignAppWindow::openDiagnostics);
    add(QStringLiteral("Pašalinti išsaugotus PIN"), &SignAppWindow::removeSavedPins);
    add(QStringLiteral("Atidaryti PIN aplanką"), &SignAppWindow::openPinFolder);
    add(QStringLiteral("Atnaujinti"), &SignAppWindow::reloadWebApp);
    add(QStringLiteral("Tikrinti programos naujinimus"), &SignAppWindow::checkForProgramUpdates);
    m_menu->addSeparator();
    // exit() rather than quit(): a window that hides itself on close must not veto leaving.
    QObject::connect(m_menu->addAction(QStringLiteral("Išeiti")), &QAction::triggered, m_menu.get(),
                     [] { QCoreApplication::exit(0); });
}

void PrimaryInstance::buildTray()
{
    SignAppWindow* window = m_window.get();
    m_tray = std::make_unique<QSystemTrayIcon>(m_icon);
    m_tray->setToolTip(QStringLiteral("Vantro Sign"));
    m_tray->setContextMenu(m_menu.get());
    QObject::connect(m_tray.get(), &QSystemTrayIcon::activated, window,
                     [window](QSystemTrayIcon::ActivationReason reason) {
                         if (reason == QSystemTrayIcon::Trigger ||
                             reason == QSystemTrayIcon::DoubleClick)
                             window->showAndRaise();
                     });
    QSystemTrayIcon* tray = m_tray.get();
    QObject::connect(window, &SignAppWindow::trayNotification, tray,
                     [tray](const QString& title, const QString& text) {
                         tray->showMessage(title, text, QSystemTrayIcon::Information,
                                           kTrayMessageMs);
                     });
    m_tray->show();
}

// The watcher reacts at once; the timer catches notifications the watcher misses.
void PrimaryInstance::watchCommands()
{
    SignAppWindow* window = m_window.get();
    m_watcher = std::make_unique<QFileSystemWatcher>(QStringList{commandsDir()});
    QObject::connect(m_watcher.get(), &QFileSystemWatcher::directoryChanged, window,
                     &SignAppWindow::receiveHandoff);
    m_timer = std::make_unique<QTimer>();
    m_timer->setInterval(kHandoffPollMs);
    QObject::connect(m_timer.get(), &QTimer::timeout, window, &SignAppWindow::receiveHandoff);
    m_timer->start();
}

void PrimaryInstance::presentWindow(const StartOptions& options)
{
    SignAppWindow* window = m_window.get();
    if (!options.tray || !options.link.isEmpty())
        window->show();
    if (!options.link.isEmpty()) {
        const QString link = options.link;
        QTimer::singleShot(0, window, [window, link] { window->handleActivationLink(link); });
    }
    // Commands left by instances started before this one.
    QTimer::singleShot(0, window, &SignAppWindow::receiveHandoff);
}

int runPrimary(const StartOptions& options)
{
    logLine(QStringLiteral("primary start args: %1")
                .arg(redactedArguments(QCoreApplication::arguments())));
    platform::exitEventLoopOnTerminationRequest();
    PrimaryInstance primary(options);
    return QApplication::exec();
}

int runWithApplication(QApplication& app, long comResult)
{
    if (comResult < 0) {
        showComFailure(comResult);
        return 2;
    }
    setIdentity(app);
    const StartOptions options = parseStartOptions(QCoreApplication::arguments());

    QDir().mkpath(appDataDir());
    QLockFile lock(instanceLockPath());
    lock.setStaleLockTime(kLockStaleMs);
    if (!lock.tryLock(0)) {
        if (lock.error() != QLockFile::LockFailedError)
            logLine(QStringLiteral("instance lock unavailable: error %1").arg(lock.error()));
        writeHandoff(options.link);
        return 0;
    }
    return runPrimary(options);
}

} // namespace

int runApplication(int argc, char** argv)
{
    const long comResult = platform::initializeComApartment();
    int result = 0;
    {
        QApplication app(argc, argv);
        result = runWithApplication(app, comResult);
    }
    if (comResult >= 0)
        platform::uninitializeComApartment();
    return result;
}

} // namespace vantro
