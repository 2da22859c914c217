#pragma once

#include "app/OrderedJson.h"

#include <QVariantList>

namespace vantro {

class DesktopBridge;

// Handlers of the "usb:" rows. The work is usb/NativeHostClient (one host process per call).
namespace usbmethods {

OrderedObject isAvailable(DesktopBridge& bridge, const QVariantList& args);
OrderedObject diagnose(DesktopBridge& bridge, const QVariantList& args);
OrderedObject getSigningCertificate(DesktopBridge& bridge, const QVariantList& args);
OrderedObject sign(DesktopBridge& bridge, const QVariantList& args);
OrderedObject signBatch(DesktopBridge& bridge, const QVariantList& args);
OrderedObject authenticate(DesktopBridge& bridge, const QVariantList& args);

} // namespace usbmethods
} // namespace vantro
