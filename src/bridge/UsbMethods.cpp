// The "usb:" method table. Handlers: bridge/UsbCardMethods; the host exchange itself:
// usb/NativeHostClient.
#include "bridge/BridgeDispatch.h"
#include "bridge/UsbCardMethods.h"

namespace vantro {

const DispatchTable& usbMethodTable()
{
    using namespace usbmethods;
    static const DispatchTable table{
        "VANTRO_USB_HELPER_UNAVAILABLE",
        {
            methodRow("usb:isAvailable", isAvailable, NeedsNothing),
            methodRow("usb:diagnose", diagnose, NeedsNothing),
            methodRow("usb:getSigningCertificate", getSigningCertificate, NeedsNothing),
            methodRow("usb:sign", sign, NeedsNothing),
            methodRow("usb:signBatch", signBatch, NeedsNothing),
            methodRow("usb:authenticate", authenticate, NeedsNothing),
        }};
    return table;
}

} // namespace vantro
