#include "ui/DropImport.h"

#include "app/AppState.h"
#include "store/LocalStore.h"
#include "ui/Logging.h"

#include <exception>

namespace vantro {

DropImportOutcome runDropImport(const QString& deviceJsonPath, const QStringList& paths)
{
    DropImportOutcome outcome;
    try {
        AppState state(deviceJsonPath);
        LocalStore store(&state);
        outcome.imported = store.importFiles(paths);
        outcome.ok = true;
    } catch (const std::exception& error) {
        outcome.error = QString::fromUtf8(error.what());
    }
    if (!outcome.ok)
        qCWarning(lcUi) << "dropped files not imported:" << outcome.error;
    return outcome;
}

} // namespace vantro
