#include "ui/DropImport.h"

#include "app/AppState.h"
#include "bridge/DesktopBridge.h"
#include "store/LocalStore.h"
#include "ui/Logging.h"

#include <exception>

namespace vantro {

namespace {
constexpr int kWaitForTurnMs = 5 * 60 * 1000;
} // namespace

DropImportOutcome runDropImport(const QString& deviceJsonPath, const QStringList& paths)
{
    DropImportOutcome outcome;
    try {
        AppState state(deviceJsonPath);
        LocalStore store(&state);
        // Holding the exclusive flag keeps the root watch from reconciling copies that are
        // still being written; a drop waits for a running exclusive call instead of failing.
        DesktopBridge::runExclusiveWhenFree([&] { outcome.imported = store.importFiles(paths); },
                                            kWaitForTurnMs);
        outcome.ok = true;
    } catch (const std::exception& error) {
        outcome.error = QString::fromUtf8(error.what());
    }
    if (!outcome.ok)
        qCWarning(lcUi) << "dropped files not imported:" << outcome.error;
    return outcome;
}

} // namespace vantro
