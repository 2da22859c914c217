#include "usb/pcsc/ReaderMonitor.h"

#include "usb/pcsc/Logging.h"
#include "usb/pcsc/PcscApi.h"

#include <QMutexLocker>
#include <QScopeGuard>

#include <memory>

#include <vector>

namespace vantro::pcsc {

namespace {

constexpr int kServiceRetryMs = 2000;
constexpr int kStopSliceMs = 50;
const char kPnpNotification[] = "\\\\?PnP?\\Notification";

} // namespace

ReaderMonitor::ReaderMonitor(QObject* parent)
    : QThread(parent)
{
    qRegisterMetaType<ReaderScan>();
}

ReaderMonitor::~ReaderMonitor()
{
    stop();
}

void ReaderMonitor::stop()
{
    m_stop.store(true);
    // The thread may be just about to enter the wait when the first cancel comes: cancel
    // again until it has ended.
    while (!wait(kStopSliceMs)) {
        QMutexLocker lock(&m_contextMutex);
        if (m_hasContext)
            SCardCancel(SCARDCONTEXT(m_context));
    }
}

void ReaderMonitor::run()
{
    while (!m_stop.load()) {
        if (watchUntilServiceLost())
            continue;
        // The scan says why the service cannot be used; the view shows it until it is back.
        Q_EMIT scanned(scanReaders());
        sleepUnlessStopped(kServiceRetryMs);
    }
}

void ReaderMonitor::sleepUnlessStopped(int ms)
{
    for (int slept = 0; slept < ms && !m_stop.load(); slept += kStopSliceMs)
        msleep(kStopSliceMs);
}

// Waits for changes on one context and rescans after each; returns false when the service is
// unavailable or went away (the caller retries), true when stopped or the reader set changed.
bool ReaderMonitor::watchUntilServiceLost()
{
    std::unique_ptr<Context> context;
    try {
        context = std::make_unique<Context>();
    } catch (const PcscError&) {
        return false;
    }
    {
        QMutexLocker lock(&m_contextMutex);
        m_context = qintptr(context->handle());
        m_hasContext = true;
    }
    const auto forget = qScopeGuard([this] {
        QMutexLocker lock(&m_contextMutex);
        m_hasContext = false;
    });
    if (m_stop.load())
        return true;

    QList<QByteArray> names;
    try {
        for (const QString& name : listReaders(*context))
            names.append(name.toUtf8());
    } catch (const PcscError&) {
        return false;
    }
    names.append(QByteArray(kPnpNotification));
    std::vector<VantroReaderState> states(size_t(names.size()));
    for (size_t i = 0; i < states.size(); ++i) {
        states[i] = {};
        states[i].szReader = names[qsizetype(i)].constData();
        states[i].dwCurrentState = SCARD_STATE_UNAWARE;
    }
    // The first call only learns the present state and is followed by a scan; every later
    // change of a card is another scan, and a change of the reader set starts over.
    bool primed = false;
    while (!m_stop.load()) {
        const LONG status = VANTRO_SCardGetStatusChange(context->handle(), INFINITE, states.data(),
                                                        DWORD(states.size()));
        qCDebug(lcPcsc) << "status change" << quint32(status);
        if (status == LONG(SCARD_E_CANCELLED) || status == LONG(SCARD_E_UNKNOWN_READER) ||
            status == LONG(SCARD_E_READER_UNAVAILABLE))
            return true;
        if (status != SCARD_S_SUCCESS && status != LONG(SCARD_E_TIMEOUT)) {
            qCInfo(lcPcsc) << "reader watch ended, PC/SC code" << quint32(status);
            return false;
        }
        const bool readersChanged = primed && (states.back().dwEventState & SCARD_STATE_CHANGED);
        for (VantroReaderState& state : states)
            state.dwCurrentState = state.dwEventState & ~DWORD(SCARD_STATE_CHANGED);
        if (readersChanged)
            return true;
        primed = true;
        Q_EMIT scanned(scanReaders());
    }
    return true;
}

} // namespace vantro::pcsc
