#pragma once

#include "usb/pcsc/Readers.h"

#include <QMutex>
#include <QThread>

#include <atomic>

namespace vantro::pcsc {

// Watches the readers on a thread of its own and reports a fresh scan whenever a reader or a
// card comes or goes (SCardGetStatusChange, with the PnP pseudo-reader for reader arrivals).
// While the service is down it retries quietly every two seconds and reports again when the
// service is back.
class ReaderMonitor : public QThread
{
    Q_OBJECT
public:
    explicit ReaderMonitor(QObject* parent = nullptr);
    ~ReaderMonitor() override;

    // Ends the wait at once and joins the thread.
    void stop();

Q_SIGNALS:
    void scanned(const vantro::pcsc::ReaderScan& scan);

protected:
    void run() override;

private:
    bool watchUntilServiceLost();
    void sleepUnlessStopped(int ms);

    std::atomic<bool> m_stop{false};
    QMutex m_contextMutex; // guards m_context for SCardCancel from stop()
    qintptr m_context = 0;
    bool m_hasContext = false;
};

} // namespace vantro::pcsc
