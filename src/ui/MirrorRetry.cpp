#include "ui/MirrorRetry.h"

#include "app/AppState.h"
#include "artifacts/MirrorQueue.h"
#include "bridge/DesktopBridge.h"
#include "store/LocalStore.h"
#include "ui/Logging.h"

#include <QFutureWatcher>
#include <QtConcurrent/QtConcurrentRun>

namespace vantro {

namespace {

bool hasOpenRows(LocalStore& store)
{
    const QJsonObject counts = store.mirrorCounts();
    return counts.value(QLatin1String("pending")).toInt() +
               counts.value(QLatin1String("failed")).toInt() >
           0;
}

} // namespace

MirrorRetryOutcome runMirrorRetry(const WorkerFactory& workers)
{
    MirrorRetryOutcome outcome;
    try {
        const std::unique_ptr<WorkerComponents> components = workers();
        if (!components->state->isActivated()) {
            outcome.state = MirrorRetryOutcome::NotActivated;
            return outcome;
        }
        LocalStore& store = *components->bridge->localStore();
        if (!hasOpenRows(store)) {
            outcome.state = MirrorRetryOutcome::Idle;
            return outcome;
        }
        const bool ran = DesktopBridge::runExclusive(
            [&] { outcome.summary = MirrorQueue(store, *components->api).retry().toVariant(); });
        outcome.state = ran ? MirrorRetryOutcome::Retried : MirrorRetryOutcome::Busy;
    } catch (const std::exception& failure) {
        outcome.state = MirrorRetryOutcome::Failed;
        outcome.error = QString::fromUtf8(failure.what());
    }
    return outcome;
}

MirrorRetry::MirrorRetry(WorkerFactory workers, QObject* parent)
    : QObject(parent)
    , m_workers(std::move(workers))
{
    connect(&m_timer, &QTimer::timeout, this, &MirrorRetry::runNow);
}

// A run still going finishes on its own; its result is then dropped with its watcher.
MirrorRetry::~MirrorRetry() = default;

void MirrorRetry::start(int intervalMs)
{
    m_timer.start(intervalMs);
    runNow();
}

void MirrorRetry::runNow()
{
    if (m_running)
        return;
    m_running = true;
    auto* watcher = new QFutureWatcher<MirrorRetryOutcome>(this);
    connect(watcher, &QFutureWatcherBase::finished, this, [this, watcher] {
        m_running = false;
        const MirrorRetryOutcome outcome = watcher->result();
        watcher->deleteLater();
        if (outcome.state == MirrorRetryOutcome::Failed)
            qCWarning(lcUi).noquote() << "mirror retry failed:" << outcome.error;
        else if (outcome.state == MirrorRetryOutcome::Busy)
            qCInfo(lcUi) << "mirror retry skipped its turn: an exclusive call is running";
        Q_EMIT finished(outcome);
    });
    watcher->setFuture(QtConcurrent::run(runMirrorRetry, m_workers));
}

} // namespace vantro
