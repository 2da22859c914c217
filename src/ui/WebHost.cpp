#include "ui/WebHost.h"

#include "ui/Logging.h"
#include "ui/PageScripts.h"
#include "ui/Theme.h"
#include "ui/WebMessagePort.h"

#include <QChildEvent>
#include <QDir>
#include <QDragEnterEvent>
#include <QMimeData>
#include <QTimer>
#include <QWebChannel>
#include <QWebEngineLoadingInfo>
#include <QWebEngineNewWindowRequest>
#include <QWebEngineProfile>
#include <QWebEngineScriptCollection>
#include <QWebEngineSettings>

#include <optional>
#include <utility>

namespace vantro {

namespace {

constexpr char kProfileName[] = "vantro-sign";
constexpr char kPortName[] = "vantroHost";
// Chromium's "aborted" and "blocked by client": a navigation replaced or refused on purpose.
constexpr int kErrAborted = -3;
constexpr int kErrBlockedByClient = -20;
constexpr int kFirstServerErrorStatus = 500;

bool isWebAddress(const QUrl& url)
{
    const QString scheme = url.scheme().toLower();
    return url.isValid() && (scheme == QLatin1String("http") || scheme == QLatin1String("https"));
}

// Addresses in logs lose query, fragment and credentials: they may carry tokens.
QString loggable(const QUrl& url)
{
    if (url.scheme() == QLatin1String("data"))
        return QStringLiteral("data:");
    return url.adjusted(QUrl::RemoveQuery | QUrl::RemoveFragment | QUrl::RemoveUserInfo).toString();
}

QWebEngineProfile* makeProfile(const QString& storageDir, QObject* parent)
{
    if (storageDir.isEmpty())
        return new QWebEngineProfile(parent);
    auto* profile = new QWebEngineProfile(QString::fromLatin1(kProfileName), parent);
    QDir().mkpath(storageDir);
    profile->setPersistentStoragePath(storageDir + QStringLiteral("/storage"));
    profile->setCachePath(storageDir + QStringLiteral("/cache"));
    return profile;
}

// Which failed loads replace the page with a status page, and which one.
std::optional<StatusKind> statusForFailure(const QWebEngineLoadingInfo& info)
{
    switch (info.errorDomain()) {
    case QWebEngineLoadingInfo::CertificateErrorDomain:
        return StatusKind::CertificateError;
    case QWebEngineLoadingInfo::HttpStatusCodeDomain:
        if (info.errorCode() >= kFirstServerErrorStatus)
            return StatusKind::ServiceError;
        return std::nullopt; // the service's own page explains a client error
    case QWebEngineLoadingInfo::InternalErrorDomain:
        if (info.errorCode() == kErrAborted || info.errorCode() == kErrBlockedByClient)
            return std::nullopt;
        return StatusKind::Unreachable;
    default:
        return StatusKind::Unreachable;
    }
}

} // namespace

// Routes the browser's navigation questions to the host's allow-list.
class HostPage : public QWebEnginePage
{
public:
    HostPage(QWebEngineProfile* profile, WebHost* host)
        : QWebEnginePage(profile, host)
        , m_host(host)
    {
    }

protected:
    bool acceptNavigationRequest(const QUrl& url, NavigationType type, bool isMainFrame) override
    {
        return m_host->acceptNavigation(url, type, isMainFrame);
    }

private:
    WebHost* m_host;
};

WebHost::WebHost(const QString& storageDir, QWidget* parent)
    : QWebEngineView(parent)
{
    m_profile = makeProfile(storageDir, this);
    m_page = new HostPage(m_profile, this);
    m_page->settings()->setAttribute(QWebEngineSettings::ErrorPageEnabled, false);
    m_page->settings()->setAttribute(QWebEngineSettings::PluginsEnabled, false);

    m_port = new WebMessagePort(this);
    m_port->setReceiver([this](const QString& json) {
        // The trusted source is the page's own address at arrival, never what the message says.
        if (m_handler)
            m_handler(json, m_page->url());
    });
    m_channel = new QWebChannel(this);
    m_channel->registerObject(QString::fromLatin1(kPortName), m_port);
    m_page->setWebChannel(m_channel);

    connect(m_page, &QWebEnginePage::loadingChanged, this, &WebHost::onLoadingChanged);
    connect(m_page, &QWebEnginePage::renderProcessTerminated, this,
            &WebHost::onRenderProcessTerminated);
    connect(m_page, &QWebEnginePage::newWindowRequested, this, &WebHost::onNewWindowRequested);
    setPage(m_page);

    setAcceptDrops(true);
    installEventFilter(this);
    for (QWidget* child : findChildren<QWidget*>())
        child->installEventFilter(this);
}

WebHost::~WebHost()
{
    // The page must go before its profile and channel.
    delete m_page;
    m_page = nullptr;
    delete m_channel;
    delete m_profile;
}

void WebHost::installPageScripts(const QString& appOrigin)
{
    QWebEngineScriptCollection& scripts = m_page->scripts();
    scripts.clear();
    const QString shim = pagescripts::shimSource();
    if (shim.isEmpty()) {
        qCCritical(lcUi) << "the web-message shim is missing; the page gets no bridge";
        return;
    }
    scripts.insert(pagescripts::documentScript(QStringLiteral("vantro-webview-shim"), shim));
    const QString api = pagescripts::pageApiSource(appOrigin);
    if (api.isEmpty()) {
        qCWarning(lcUi) << "no page API script in this build";
        return;
    }
    scripts.insert(pagescripts::documentScript(QStringLiteral("vantro-page-api"), api));
}

void WebHost::openApp(const QUrl& url)
{
    m_appUrl = url;
    m_showingStatus = false;
    m_page->load(url);
}

void WebHost::reloadApp()
{
    if (m_showingStatus || !isTrusted(m_page->url()))
        openApp(m_appUrl);
    else
        m_page->triggerAction(QWebEnginePage::Reload);
}

void WebHost::showStatus(StatusKind kind, const QString& detail)
{
    qCWarning(lcUi) << "showing status page" << int(kind) << detail;
    m_showingStatus = true;
    m_internalLoadPending = true;
    // No base address: the page gets an opaque origin, so the page API never installs there.
    m_page->setHtml(statusPageHtml(kind, m_appUrl, detail, m_dark), QUrl());
    Q_EMIT statusShown(kind);
}

void WebHost::setDarkTheme(bool dark)
{
    m_dark = dark;
    m_page->setBackgroundColor(themeColors(dark).background);
}

QStringList WebHost::localFiles(const QMimeData* mime)
{
    QStringList files;
    if (!mime || !mime->hasUrls())
        return files;
    for (const QUrl& url : mime->urls()) {
        if (!url.isLocalFile())
            return {};
        files << QDir::toNativeSeparators(url.toLocalFile());
    }
    return files;
}

void WebHost::postWebMessageAsJson(const QByteArray& json)
{
    Q_EMIT m_port->message(QString::fromUtf8(json));
}

void WebHost::executeScript(const QString& script)
{
    m_page->runJavaScript(script, QWebEngineScript::MainWorld);
}

bool WebHost::acceptNavigation(const QUrl& url, QWebEnginePage::NavigationType type, bool mainFrame)
{
    if (!mainFrame)
        return true; // frames never get the bridge; the app decides what it embeds
    if (url.scheme() == QLatin1String("data") && std::exchange(m_internalLoadPending, false))
        return true;
    if (isTrusted(url)) {
        m_showingStatus = false;
        return true;
    }
    const bool userIntent = type != QWebEnginePage::NavigationTypeBackForward &&
                            type != QWebEnginePage::NavigationTypeReload;
    qCInfo(lcUi) << "kept out of the window:" << loggable(url);
    if (userIntent && isWebAddress(url))
        Q_EMIT externalUrlRequested(url);
    return false;
}

void WebHost::onLoadingChanged(const QWebEngineLoadingInfo& info)
{
    if (info.status() != QWebEngineLoadingInfo::LoadFailedStatus ||
        info.url().scheme() == QLatin1String("data"))
        return;
    qCWarning(lcUi) << "load failed:" << loggable(info.url()) << info.errorDomain()
                    << info.errorCode() << info.errorString();
    if (const auto kind = statusForFailure(info))
        showStatus(*kind, info.errorString());
}

void WebHost::onRenderProcessTerminated(QWebEnginePage::RenderProcessTerminationStatus status,
                                        int exitCode)
{
    if (status == QWebEnginePage::NormalTerminationStatus)
        return;
    const QString detail =
        QStringLiteral("render process status %1, exit code %2").arg(int(status)).arg(exitCode);
    // The page is torn down after this signal returns; load the status page afterwards.
    QTimer::singleShot(0, this, [this, detail] { showStatus(StatusKind::Crashed, detail); });
}

void WebHost::onNewWindowRequested(QWebEngineNewWindowRequest& request)
{
    // Never a second window: trusted pages open in place, anything else in the system browser.
    const QUrl url = request.requestedUrl();
    if (isTrusted(url))
        m_page->load(url);
    else if (isWebAddress(url))
        Q_EMIT externalUrlRequested(url);
    else
        qCInfo(lcUi) << "new window refused:" << loggable(url);
}

bool WebHost::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == this && event->type() == QEvent::ChildAdded) {
        // The browser's render widget receives drags itself; watch it as well.
        if (auto* child = qobject_cast<QWidget*>(static_cast<QChildEvent*>(event)->child()))
            child->installEventFilter(this);
    }
    switch (event->type()) {
    case QEvent::DragEnter:
    case QEvent::DragMove:
    case QEvent::DragLeave:
    case QEvent::Drop:
        return handleDragEvent(event);
    default:
        return QWebEngineView::eventFilter(watched, event);
    }
}

// Local files dropped on the window go to the import, never to the page: the browser would
// otherwise navigate to the first file. Other drags (text inside the page) pass through.
bool WebHost::handleDragEvent(QEvent* event)
{
    if (event->type() == QEvent::DragLeave) {
        if (!m_fileDragActive)
            return false;
        setFileDragActive(false);
        return true;
    }
    auto* drop = static_cast<QDropEvent*>(event);
    const QStringList files = localFiles(drop->mimeData());
    if (files.isEmpty()) {
        setFileDragActive(false);
        return false;
    }
    drop->setDropAction(Qt::CopyAction);
    drop->accept();
    if (event->type() == QEvent::Drop) {
        m_fileDragActive = false;
        Q_EMIT filesDropped(files);
    } else {
        setFileDragActive(true);
    }
    return true;
}

void WebHost::setFileDragActive(bool active)
{
    if (m_fileDragActive == active)
        return;
    m_fileDragActive = active;
    Q_EMIT fileDragActiveChanged(active);
}

} // namespace vantro
