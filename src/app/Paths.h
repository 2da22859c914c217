#pragma once

#include <QString>

namespace vantro {

// The per-user application directory, without a trailing separator; not created here.
// "LOCALAPPDATA" (when set to something other than blanks) joined with "Vantro Sign Next/app",
// otherwise the platform's per-user app-local data location.
QString appDataDir();

// appDataDir() + "/commands", created with its parents first.
QString commandsDir();

// appDataDir() + "/updates": downloaded installers and "ready.json"; not created here.
QString updatesDir();

// appDataDir() + "/vantro-sign-app.lock".
QString instanceLockPath();

} // namespace vantro
