#include "ui/LocalRootWatch.h"

#include "app/AppState.h"
#include "bridge/DesktopBridge.h"
#include "store/LocalStore.h"
#include "ui/Logging.h"

#include <QFutureWatcher>
#include <QSet>
#include <QtConcurrent/QtConcurrentRun>

#include <exception>

namespace vantro {

namespace {
// Long enough for a copy of many files or a browser's rename at the end of a download to finish,
// short enough that the page shows new files while the user still looks for them.
constexpr int kDefaultQuietMs = 750;
} // namespace

WatchRunOutcome runWatchReconcile(const QString& deviceJsonPath)
{
    WatchRunOutcome outcome;
    try {
        AppState state(deviceJsonPath);
        LocalStore store(&state);
        const bool ran = DesktopBridge::runExclusive(
            [&] { outcome.summary = store.reconcileLocalRoot(&outcome.folders); });
        if (!ran) {
            outcome.state = WatchRunOutcome::Busy;
            return outcome;
        }
        outcome.state = WatchRunOutcome::Done;
    } catch (const std::exception& error) {
        outcome.state = WatchRunOutcome::Failed;
        outcome.error = QString::fromUtf8(error.what());
    }
    return outcome;
}

LocalRootWatch::LocalRootWatch(const QString& deviceJsonPath, QObject* parent)
    : QObject(parent)
    , m_deviceJsonPath(deviceJsonPath)
{
    m_quiet.setSingleShot(true);
    m_quiet.setInterval(kDefaultQuietMs);
    connect(&m_quiet, &QTimer::timeout, this, &LocalRootWatch::runNow);
    connect(&m_watcher, &QFileSystemWatcher::directoryChanged, this, &LocalRootWatch::changed);
}

LocalRootWatch::~LocalRootWatch() = default;

void LocalRootWatch::watch(const QString& root)
{
    if (root == m_root && !m_watcher.directories().isEmpty())
        return;
    m_root = root;
    watchFolders({root});
    changed();
}

// Every change restarts the quiet period, so a burst becomes one run after it ends.
void LocalRootWatch::changed()
{
    if (m_running) {
        m_changedWhileRunning = true;
        return;
    }
    m_quiet.start();
}

void LocalRootWatch::runNow()
{
    m_running = true;
    m_changedWhileRunning = false;
    auto* watcher = new QFutureWatcher<WatchRunOutcome>(this);
    connect(watcher, &QFutureWatcherBase::finished, this, [this, watcher] {
        watcher->deleteLater();
        finished(watcher->result());
    });
    watcher->setFuture(QtConcurrent::run(runWatchReconcile, m_deviceJsonPath));
}

void LocalRootWatch::finished(const WatchRunOutcome& outcome)
{
    m_running = false;
    switch (outcome.state) {
    case WatchRunOutcome::Done:
        watchFolders(outcome.folders);
        Q_EMIT reconciled(outcome.summary.toVariant());
        break;
    case WatchRunOutcome::Busy:
        qCDebug(lcUi) << "root watch waits: an exclusive desktop call is running";
        m_changedWhileRunning = true;
        break;
    case WatchRunOutcome::Failed:
        qCWarning(lcUi).noquote() << "root watch reconciliation failed:" << outcome.error;
        break;
    }
    if (m_changedWhileRunning)
        changed();
}

namespace {
// The entries of `list` that `other` lacks, in their order.
QStringList missingFrom(const QStringList& list, const QStringList& other)
{
    const QSet<QString> present(other.begin(), other.end());
    QStringList missing;
    for (const QString& item : list) {
        if (!present.contains(item))
            missing << item;
    }
    return missing;
}
} // namespace

void LocalRootWatch::watchFolders(const QStringList& folders)
{
    const QStringList current = m_watcher.directories();
    const QStringList gone = missingFrom(current, folders);
    const QStringList added = missingFrom(folders, current);
    if (!gone.isEmpty())
        m_watcher.removePaths(gone);
    if (!added.isEmpty())
        m_watcher.addPaths(added);
}

} // namespace vantro
