#pragma once

#include "app/OrderedJson.h"

#include <QVariantList>

namespace vantro {

class DesktopBridge;

// Handlers of the update rows; each answers the update status after acting. The work is
// update/UpdateManager.
namespace updatemethods {

OrderedObject getUpdateStatus(DesktopBridge& bridge, const QVariantList& args);
OrderedObject checkForUpdates(DesktopBridge& bridge, const QVariantList& args);
OrderedObject startUpdate(DesktopBridge& bridge, const QVariantList& args);
OrderedObject cancelUpdate(DesktopBridge& bridge, const QVariantList& args);
OrderedObject applyUpdate(DesktopBridge& bridge, const QVariantList& args);

} // namespace updatemethods
} // namespace vantro
