#pragma once

#include "app/OrderedJson.h"

#include <QVariantList>

namespace vantro {

class DesktopBridge;

// Handlers of the local-root rows: reconciliation, document deletion and opening folders.
// The work is the local store's (store/LocalRootReconciler, store/LocalDeletion).
namespace localrootmethods {

OrderedObject reconcileLocalRoot(DesktopBridge& bridge, const QVariantList& args);
OrderedObject deleteLocalDocument(DesktopBridge& bridge, const QVariantList& args);
OrderedObject openLocalRoot(DesktopBridge& bridge, const QVariantList& args);
OrderedObject openLocalFolder(DesktopBridge& bridge, const QVariantList& args);

} // namespace localrootmethods
} // namespace vantro
