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

BridgeMethod pending(const char* name)
{
    return {name, nullptr, kUsbHelper, NeedsNothing};
}

} // namespace

const DispatchTable& usbMethodTable()
{
    static const DispatchTable table{"VANTRO_USB_HELPER_UNAVAILABLE",
                                     {
                                         {"usb:isAvailable", isAvailable, nullptr, NeedsNothing},
                                         pending("usb:diagnose"),
                                         pending("usb:getSigningCertificate"),
                                         pending("usb:sign"),
                                         pending("usb:signBatch"),
                                         pending("usb:authenticate"),
                                     }};
    return table;
}

} // namespace vantro
