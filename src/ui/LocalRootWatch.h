#pragma once

#include "app/OrderedJson.h"

#include <QFileSystemWatcher>
#include <QObject>
#include <QStringList>
#include <QTimer>

namespace vantro {

// What one reconciliation run of the watch produced on its worker thread.
struct WatchRunOutcome
{
    enum State { Done, Busy, Failed };
    State state = Failed;
    OrderedObject summary;
    QStringList folders; // the folders to watch from now on
    QString error;
};

// Runs a reconciliation on the calling (worker) thread with its own settings and store, holding
// the exclusive flag; Busy without running when an exclusive bridge call holds it. Never throws.
WatchRunOutcome runWatchReconcile(const QString& deviceJsonPath);

// Watches the local root and every folder the reconciliation walks (folders created later
// included) and reconciles after a burst of changes has gone quiet: off the main thread, one
// run at a time, and never beside an exclusive bridge call (it tries again after the next quiet
// period). Each finished run is reported through reconciled().
class LocalRootWatch : public QObject
{
    Q_OBJECT
public:
    explicit LocalRootWatch(const QString& deviceJsonPath, QObject* parent = nullptr);
    ~LocalRootWatch() override;

    // Watches `root` and schedules a first run. Calling it again with another root moves the watch.
    void watch(const QString& root);
    QString root() const { return m_root; }
    void setQuietPeriod(int milliseconds) { m_quiet.setInterval(milliseconds); }
    bool isRunning() const { return m_running; }

Q_SIGNALS:
    void reconciled(const QVariant& summary);

private:
    void changed();
    void runNow();
    void finished(const WatchRunOutcome& outcome);
    void watchFolders(const QStringList& folders);

    QString m_deviceJsonPath;
    QString m_root;
    QFileSystemWatcher m_watcher;
    QTimer m_quiet;
    bool m_running = false;
    bool m_changedWhileRunning = false;
};

} // namespace vantro
