#include "ui/DropImport.h"

#include "app/AppState.h"
#include "app/Errors.h"
#include "bridge/DesktopBridge.h"
#include "store/LocalStore.h"
#include "ui/Logging.h"

#include <QDeadlineTimer>
#include <QThread>

#include <exception>

namespace vantro {

namespace {
constexpr int kWaitForTurnMs = 5 * 60 * 1000;
constexpr unsigned long kTurnPollMs = 50;
} // namespace

DropImportOutcome runDropImport(const QString& deviceJsonPath, const QStringList& paths)
{
    DropImportOutcome outcome;
    try {
        AppState state(deviceJsonPath);
        LocalStore store(&state);
        // Holding the exclusive flag keeps the root watch from reconciling copies that are
        // still being written; a drop waits for a running exclusive call instead of failing.
        QDeadlineTimer deadline(kWaitForTurnMs);
        while (!DesktopBridge::runExclusive([&] { outcome.imported = store.importFiles(paths); })) {
            if (deadline.hasExpired())
                fail(QStringLiteral("VANTRO_SIGN_BRIDGE_BUSY"),
                     QStringLiteral("Vantro Sign is still processing the previous desktop "
                                    "request."));
            QThread::msleep(kTurnPollMs);
        }
        outcome.ok = true;
    } catch (const std::exception& error) {
        outcome.error = QString::fromUtf8(error.what());
    }
    if (!outcome.ok)
        qCWarning(lcUi) << "dropped files not imported:" << outcome.error;
    return outcome;
}

} // namespace vantro
