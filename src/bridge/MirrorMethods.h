#pragma once

#include "app/OrderedJson.h"

#include <QVariantList>

namespace vantro {

class DesktopBridge;

// Handlers of the mirror queue rows. The work is artifacts/MirrorQueue.
namespace mirrormethods {

OrderedObject mirrorArtifact(DesktopBridge& bridge, const QVariantList& args);
OrderedObject getMirrorStatus(DesktopBridge& bridge, const QVariantList& args);
OrderedObject retryMirrorQueue(DesktopBridge& bridge, const QVariantList& args);

} // namespace mirrormethods
} // namespace vantro
