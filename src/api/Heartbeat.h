#pragma once

#include "app/OrderedJson.h"

#include <QString>

namespace vantro {

// Body of the heartbeat: the build, the helper's health, how far the mirror queue is behind and
// the desktop features the page may rely on, keys in their fixed order. `status` carries
// "helperAvailable", "pendingMirrorCount" and "failedMirrorCount".
OrderedObject heartbeatBody(const QString& localRoot, const OrderedObject& status);

} // namespace vantro
