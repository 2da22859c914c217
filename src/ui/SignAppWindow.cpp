#include "ui/SignAppWindow.h"

#include "api/DeviceActivation.h"
#include "api/Endpoints.h"
#include "api/SignApiClient.h"
#include "app/ActivationLink.h"
#include "app/AppState.h"
#include "app/Errors.h"
#include "app/InstanceLog.h"
#include "app/OrderedJson.h"
#include "app/Paths.h"
#include "bridge/DesktopBridge.h"
#include "store/LocalStore.h"
#include "ui/ActivationScreen.h"
#include "ui/DiagnosticsView.h"
#include "ui/DropImport.h"
#include "ui/LocalRootWatch.h"
#include "ui/Logging.h"
#include "ui/MirrorRetry.h"
#include "ui/SystemDesktopShell.h"
#include "ui/Theme.h"
#include "ui/WebHost.h"
#include "usb/HelperRegistry.h"
#include "usb/NativeHostClient.h"
#include "usb/RuntimeBridge.h"

#include <QCoreApplication>
#include <QFutureWatcher>
#include <QMenuBar>
#include <QMessageBox>
#include <QScopeGuard>
#include <QSysInfo>
#include <QtConcurrent/QtConcurrentRun>
#include <QTimer>

namespace vantro {

namespace {

constexpr int kDefaultWidth = 1200;
constexpr int kDefaultHeight = 800;

const QString kWebViewFolder = QStringLiteral("/webview");
const QString kDropStateEvent = QStringLiteral("vantro-sign-drop-state");
const QString kFilesDroppedEvent = QStringLiteral("vantro-sign-files-dropped");
const QString kDropErrorEvent = QStringLiteral("vantro-sign-drop-error");
const QString kOpenUpdateStatusEvent = QStringLiteral("vantro-sign-open-update-status");
const QString kUpdateStatusEvent = QStringLiteral("vantro-sign-update-status");
// The first automatic update check waits for the start-up work to settle; then once a day.
constexpr int kFirstUpdateCheckMs = 2 * 60 * 1000;
constexpr int kUpdateCheckIntervalMs = 24 * 60 * 60 * 1000;

// Features whose components are not part of this build yet: the user gets told, not ignored.
const QString kActivationSaveFailed =
    QStringLiteral("Aktyvavimo duomenų nepavyko išsaugoti šiame kompiuteryje. Kompiuteris "
                   "neaktyvuotas.");
const QString kPinFolderFailed = QStringLiteral("PIN aplanko atidaryti nepavyko.");

} // namespace

// Components in their fixed order: settings, service client, bridge; then the browser.
SignAppWindow::SignAppWindow(QWidget* parent)
    : QMainWindow(parent)
    , m_systemShell(std::make_unique<SystemDesktopShell>(this))
    , m_shell(m_systemShell.get())
{
    setWindowTitle(QStringLiteral("Vantro Sign"));
    resize(kDefaultWidth, kDefaultHeight);

    m_state = new AppState(this);
    m_runtime = new RuntimeBridge(this);
    m_runtime->setUrlOpener([this](const QUrl& url) { return m_shell->openUrl(url); });
    m_api = new SignApiClient(m_state, this);
    m_bridge = new DesktopBridge(m_state, m_runtime, m_api, this);
    m_bridge->setDesktopShell(m_shell);
    m_channel = new BridgeChannel(m_bridge, m_api, defaultWorkerFactory(m_state->filePath()), this);
    m_channel->setCompletionHooks(this);
    buildUpdateManager();

    buildWebHost();
    buildHelpMenu();
    applyStateTheme();
    connect(m_state, &AppState::changed, this, &SignAppWindow::applyStateTheme);
    watchLocalRoot();
    retryMirrorQueue();
    openWebApp();
    if (!m_state->isActivated())
        QTimer::singleShot(0, this, &SignAppWindow::openActivationScreen);
}

// The browser goes first so no page message reaches a component being destroyed; then the
// components in reverse order of construction.
SignAppWindow::~SignAppWindow()
{
    delete m_rootWatch;
    delete m_web;
    delete m_channel;
    delete m_bridge;
    delete m_api;
    delete m_state;
}

void SignAppWindow::buildWebHost()
{
    m_web = new WebHost(AppState::dataDir() + kWebViewFolder, this);
    m_web->setTrustRule(
        [this](const QUrl& url) { return endpoints::isTrustedAppUrl(m_api->baseUrl(), url); });
    m_web->setMessageHandler([this](const QString& json, const QUrl& source) {
        m_channel->handleWebMessage(json, source.toString());
    });
    m_web->installPageScripts(m_api->webAppOrigin());
    m_channel->attachWebView(m_web);

    connect(m_web, &WebHost::externalUrlRequested, this,
            [this](const QUrl& url) { m_shell->openUrl(url); });
    connect(m_web, &WebHost::fileDragActiveChanged, this, &SignAppWindow::emitDropState);
    connect(m_web, &WebHost::filesDropped, this, &SignAppWindow::importDroppedFiles);
    setCentralWidget(m_web);
}

// The window's own way to the diagnostics, besides the tray.
void SignAppWindow::buildHelpMenu()
{
    QMenu* help = menuBar()->addMenu(QStringLiteral("Pagalba"));
    QAction* diagnostics = help->addAction(QStringLiteral("Diagnostika"));
    diagnostics->setShortcut(QKeySequence(QStringLiteral("Ctrl+Shift+D")));
    connect(diagnostics, &QAction::triggered, this, &SignAppWindow::openDiagnostics);
}

// Files the user puts into the root reach the page without a reload; a root chosen later moves
// the watch with it.
void SignAppWindow::watchLocalRoot()
{
    if (!m_state->ensureLocalRoot())
        qCWarning(lcUi).noquote() << "local root unavailable:" << m_state->lastError();
    m_rootWatch = new LocalRootWatch(m_state->filePath(), this);
    connect(m_rootWatch, &LocalRootWatch::reconciled, this, [this](const QVariant& summary) {
        m_channel->announceReconciliation(summary, QStringLiteral("watch"));
    });
    const auto follow = [this] {
        m_rootWatch->watch(m_bridge->localStore()->localRoot());
    };
    connect(m_state, &AppState::changed, m_rootWatch, follow);
    follow();
}

// Signed results still owed to the local root arrive without the page asking.
void SignAppWindow::retryMirrorQueue()
{
    m_mirrorRetry = new MirrorRetry(defaultWorkerFactory(m_state->filePath()), this);
    m_mirrorRetry->start();
}

void SignAppWindow::openWebApp()
{
    m_api->sendHeartbeat(m_bridge->helperRuntime());
    m_web->openApp(m_api->webAppUrl());
}

void SignAppWindow::setDesktopShell(DesktopShell* shell)
{
    m_shell = shell ? shell : m_systemShell.get();
    m_bridge->setDesktopShell(m_shell);
}

void SignAppWindow::applyStateTheme()
{
    const bool dark = m_state->theme() == QLatin1String("dark");
    applyTheme(this, dark);
    m_web->setDarkTheme(dark);
}

// A window the user maximised stays maximised when it comes back from the tray.
void SignAppWindow::showAndRaise()
{
    if (isMinimized())
        showNormal();
    else
        show();
    raise();
    activateWindow();
}

void SignAppWindow::handleActivationLink(const QString& link)
{
    const QString redacted = redactActivationLink(link);
    logLine(QStringLiteral("activation link received: %1").arg(redacted));
    qCInfo(lcUi) << "activation link received:" << redacted;
    showAndRaise();
    const activation::LinkRequest request = activation::parseActivationLink(link);
    openActivationScreen();
    m_activation->setCode(request.code);
    activateDevice(request.code, request.base);
}

void SignAppWindow::openActivationScreen()
{
    showAndRaise();
    if (!m_activation) {
        m_activation = new ActivationScreen(this);
        m_activation->setAttribute(Qt::WA_DeleteOnClose);
        connect(m_activation, &ActivationScreen::activationRequested, this,
                [this](const QString& code) { activateDevice(code, {}); });
    }
    m_activation->show();
    m_activation->raise();
    m_activation->activateWindow();
}

// Asks the service for an identity and stores it whole; the screen shows why when it cannot.
// The call waits in a nested event loop, so a second request meanwhile is turned away.
void SignAppWindow::activateDevice(const QString& code, const QString& linkBase)
{
    if (m_activating || !m_activation)
        return;
    m_activating = true;
    const auto done = qScopeGuard([this] { m_activating = false; });
    m_activation->showProgress();
    QString base;
    try {
        base = activation::resolveActivationBase(linkBase, m_api->baseUrl());
        const AppState::Activation grant =
            activation::request(*m_api, base, code, QSysInfo::machineHostName());
        if (!m_state->applyActivation(grant))
            throw CodedError(QStringLiteral("VANTRO_SIGN_ACTIVATION_SAVE_FAILED"),
                             kActivationSaveFailed);
    } catch (const CodedError& failure) {
        logLine(QStringLiteral("activation refused: %1").arg(failure.code()));
        if (m_activation)
            m_activation->showError(failure.message());
        return;
    }
    logLine(QStringLiteral("device activated"));
    if (m_activation)
        m_activation->accept();
    m_api->setBaseUrl(endpoints::resolveBaseUrl(base));
    m_web->installPageScripts(m_api->webAppOrigin());
    openWebApp();
}

ActivationScreen* SignAppWindow::activationScreen() const
{
    return m_activation;
}

DiagnosticsView* SignAppWindow::diagnosticsView() const
{
    return m_diagnostics;
}

// One diagnostics window at a time; asking again brings it forward.
void SignAppWindow::openDiagnostics()
{
    if (!m_diagnostics) {
        DiagnosticsSources sources;
        sources.runtime = m_runtime;
        sources.helperStatus = [this] {
            return m_bridge->helperRuntime();
        };
        sources.logPath = instanceLogPath();
        sources.middlewareReport = [registry = m_bridge->helperRegistry()] {
            const QString cli = registry->locate(middlewareCliFileName());
            if (cli.isEmpty())
                return QJsonObject{
                    {QStringLiteral("error"), QStringLiteral("diagnostikos programa %1 nerasta")
                                                  .arg(middlewareCliFileName())}};
            return runMiddlewareDiagnose(cli, kMiddlewareDiagnoseTimeoutMs);
        };
        sources.openUrl = [this](const QUrl& url) {
            return m_shell->openUrl(url);
        };
        m_diagnostics = new DiagnosticsView(std::move(sources), this);
        m_diagnostics->setAttribute(Qt::WA_DeleteOnClose);
    }
    m_diagnostics->show();
    m_diagnostics->raise();
    m_diagnostics->activateWindow();
}

void SignAppWindow::removeSavedPins()
{
    m_runtime->clearStoredPins();
    showNotice(m_runtime->lastMessage());
}

void SignAppWindow::openPinFolder()
{
    if (!m_runtime->openStoredPinFolder())
        showNotice(kPinFolderFailed);
}

void SignAppWindow::reloadWebApp()
{
    m_web->reloadApp();
}

void SignAppWindow::checkForProgramUpdates()
{
    showNormal();
    raise();
    activateWindow();
    m_channel->emitDesktopEvent(kOpenUpdateStatusEvent, QVariantMap());
    m_updates->checkForUpdates(true);
}

// Built after the bridge and handed to it; its status reaches the page as an event. A kept,
// verified installer is restored first; automatic checks never ask to install by themselves.
void SignAppWindow::buildUpdateManager()
{
    m_updates = new UpdateManager(updatesDir(), this);
    m_updates->setShell(this);
    m_bridge->setUpdateManager(m_updates);
    connect(m_updates, &UpdateManager::statusChanged, this, [this](const OrderedObject& status) {
        m_channel->emitDesktopEvent(
            kUpdateStatusEvent,
            OrderedObject{{QStringLiteral("status"), status.toVariant()}}.toVariant());
    });
    m_updates->restoreReady();
    m_updateChecks = new QTimer(this);
    m_updateChecks->setSingleShot(false);
    connect(m_updateChecks, &QTimer::timeout, this, [this] {
        m_updateChecks->setInterval(kUpdateCheckIntervalMs);
        m_updates->checkForUpdates(false);
    });
    m_updateChecks->start(kFirstUpdateCheckMs);
}

bool SignAppWindow::confirmInstall(const QString& title, const QString& text)
{
    showAndRaise();
    return QMessageBox::question(this, title, text, QMessageBox::Yes | QMessageBox::No,
                                 QMessageBox::Yes) == QMessageBox::Yes;
}

void SignAppWindow::quitApplication()
{
    QCoreApplication::quit();
}

// One notice box at a time, non-modal: the tray and the page stay usable behind it.
void SignAppWindow::showNotice(const QString& text)
{
    qCInfo(lcUi) << "notice:" << text;
    if (!m_notice) {
        m_notice = new QMessageBox(QMessageBox::Information, QStringLiteral("Vantro Sign"), text,
                                   QMessageBox::Ok, this);
        m_notice->setAttribute(Qt::WA_DeleteOnClose);
        m_notice->setModal(false);
    }
    m_notice->setText(text);
    m_notice->show();
    m_notice->raise();
    Q_EMIT noticeShown(text);
}

void SignAppWindow::emitDropState(bool active)
{
    m_channel->emitDesktopEvent(
        kDropStateEvent,
        QVariant::fromValue(OrderedObject{{QStringLiteral("active"), active},
                                          {QStringLiteral("busy"), m_dropImportsRunning > 0}}));
}

void SignAppWindow::importDroppedFiles(const QStringList& paths)
{
    if (paths.isEmpty())
        return;
    qCInfo(lcUi) << "importing" << paths.size() << "dropped file(s)";
    ++m_dropImportsRunning;
    emitDropState(false);
    auto* watcher = new QFutureWatcher<DropImportOutcome>(this);
    connect(watcher, &QFutureWatcher<DropImportOutcome>::finished, this, [this, watcher, paths] {
        watcher->deleteLater();
        finishDropImport(paths, watcher->result());
    });
    // The worker builds its own settings and store; nothing of this window crosses over.
    watcher->setFuture(QtConcurrent::run(runDropImport, m_state->filePath(), paths));
}

void SignAppWindow::finishDropImport(const QStringList& paths, const DropImportOutcome& outcome)
{
    --m_dropImportsRunning;
    if (outcome.ok) {
        m_channel->emitDesktopEvent(
            kFilesDroppedEvent,
            QVariant::fromValue(OrderedObject{{QStringLiteral("imported"), outcome.imported},
                                              {QStringLiteral("files"), paths},
                                              {QStringLiteral("source"), QStringLiteral("drop")}}));
    } else {
        m_channel->emitDesktopEvent(
            kDropErrorEvent,
            QVariant::fromValue(OrderedObject{{QStringLiteral("message"), outcome.error}}));
    }
    emitDropState(false);
}

// The preview host and the artifact reveal are separate components that are not part of this
// build; their prepared values are logged so a support case can see what the page asked for.
void SignAppWindow::showNativePreview(const QVariant& prepared)
{
    qCWarning(lcUi) << "native preview host not available in this build; dropped"
                    << prepared.typeName();
}

void SignAppWindow::openPreparedDefault(const QVariant& prepared)
{
    qCWarning(lcUi) << "default-application opening not available in this build; dropped"
                    << prepared.typeName();
}

void SignAppWindow::completeArtifactReveal(const QVariant& value)
{
    qCWarning(lcUi) << "artifact reveal not available in this build; dropped" << value.typeName();
}

} // namespace vantro
