#pragma once

#include "bridge/BridgeChannel.h"

#include <QObject>
#include <QTimer>
#include <QVariant>

namespace vantro {

// What one window-started retry did on its worker thread.
struct MirrorRetryOutcome
{
    enum State { Retried, Idle, Busy, NotActivated, Failed };
    State state = Failed;
    QVariant summary; // the retry summary when Retried
    QString error;
};

// Retries the open mirror rows on the calling (worker) thread with its own components, holding
// the exclusive flag like the page's retry; Busy without running while an exclusive call holds
// it, Idle when no row is open. Never throws.
MirrorRetryOutcome runMirrorRetry(const WorkerFactory& workers);

// Retries the mirror queue without the page: at start and then every `interval` while rows are
// open, for an activated device only, off the main thread and one run at a time.
class MirrorRetry : public QObject
{
    Q_OBJECT
public:
    static constexpr int kDefaultIntervalMs = 5 * 60 * 1000;

    explicit MirrorRetry(WorkerFactory workers, QObject* parent = nullptr);
    ~MirrorRetry() override;

    void start(int intervalMs = kDefaultIntervalMs);

Q_SIGNALS:
    void finished(const MirrorRetryOutcome& outcome);

private:
    void runNow();

    WorkerFactory m_workers;
    QTimer m_timer;
    bool m_running = false;
};

} // namespace vantro

Q_DECLARE_METATYPE(vantro::MirrorRetryOutcome)
