#include "platform/TerminationRequest.h"

#include <QCoreApplication>
#include <QMetaObject>

#include <windows.h>

#include <atomic>

namespace vantro::platform {

namespace {

// Runs on a thread the system creates; the exit is queued to the application's thread.
// Session end reaches the GUI through WM_ENDSESSION, which Qt already turns into a quit.
BOOL WINAPI onConsoleControl(DWORD type)
{
    static std::atomic<bool> requested{false};
    if (type != CTRL_C_EVENT && type != CTRL_BREAK_EVENT && type != CTRL_CLOSE_EVENT)
        return FALSE;
    if (requested.exchange(true) || !QCoreApplication::instance())
        return FALSE;
    QMetaObject::invokeMethod(
        QCoreApplication::instance(), [] { QCoreApplication::exit(0); }, Qt::QueuedConnection);
    return TRUE;
}

} // namespace

void exitEventLoopOnTerminationRequest()
{
    SetConsoleCtrlHandler(onConsoleControl, TRUE);
}

} // namespace vantro::platform
