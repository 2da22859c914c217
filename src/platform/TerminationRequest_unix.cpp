#include "platform/TerminationRequest.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace vantro::platform {

namespace {

// Self-pipe: the handler may only do async-signal-safe work, so it wakes the event loop.
int g_pipe[2] = {-1, -1};

void onSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(g_pipe[1], &byte, 1);
}

bool openPipe()
{
    if (::pipe(g_pipe) != 0)
        return false;
    for (const int fd : g_pipe) {
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    }
    return true;
}

void installHandler(int signal)
{
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    // One-shot: a second signal during a stuck shutdown terminates as usual.
    action.sa_flags = SA_RESTART | SA_RESETHAND;
    ::sigaction(signal, &action, nullptr);
}

} // namespace

void exitEventLoopOnTerminationRequest()
{
    if (g_pipe[0] >= 0 || !openPipe())
        return;
    auto* notifier =
        new QSocketNotifier(g_pipe[0], QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, notifier, [notifier] {
        char byte = 0;
        [[maybe_unused]] const ssize_t read = ::read(g_pipe[0], &byte, 1);
        notifier->setEnabled(false);
        QCoreApplication::exit(0);
    });
    installHandler(SIGTERM);
    installHandler(SIGINT);
}

} // namespace vantro::platform
