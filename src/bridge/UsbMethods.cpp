// The "usb:" method table. Only the presence check is answered here; the card methods belong
// to the native host client and answer "not available" until it is part of the build.
#include "bridge/BridgeDispatch.h"
#include "bridge/DesktopBridge.h"
#include "bridge/NativeHost.h"

namespace vantro {

namespace {

constexpr char kUsbHelper[] = "USB/eID helper";

OrderedObject isAvailable(DesktopBridge& bridge, const QVariantList&)
{
    return DesktopBridge::ok(!bridge.locateHelperExecutable(nativeHostFileName()).isEmpty());
}

} // namespace

const DispatchTable& usbMethodTable()
{
    static const DispatchTable table{"VANTRO_USB_HELPER_UNAVAILABLE",
                                     {
                                         methodRow("usb:isAvailable", isAvailable, NeedsNothing),
                                         pendingRow("usb:diagnose", kUsbHelper),
                                         pendingRow("usb:getSigningCertificate", kUsbHelper),
                                         pendingRow("usb:sign", kUsbHelper),
                                         pendingRow("usb:signBatch", kUsbHelper),
                                         pendingRow("usb:authenticate", kUsbHelper),
                                     }};
    return table;
}

} // namespace vantro
