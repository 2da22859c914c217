#include "bridge/UpdateMethods.h"

#include "bridge/DesktopBridge.h"
#include "update/UpdateManager.h"

namespace vantro::updatemethods {

namespace {

OrderedObject statusOf(DesktopBridge& bridge)
{
    return DesktopBridge::ok(bridge.updateManager()->status().toVariant());
}

} // namespace

OrderedObject getUpdateStatus(DesktopBridge& bridge, const QVariantList&)
{
    return statusOf(bridge);
}

// A check the page asks for is an interactive one: a verified download asks to install.
OrderedObject checkForUpdates(DesktopBridge& bridge, const QVariantList&)
{
    bridge.updateManager()->checkForUpdates(true);
    return statusOf(bridge);
}

OrderedObject startUpdate(DesktopBridge& bridge, const QVariantList&)
{
    bridge.updateManager()->startUpdate();
    return statusOf(bridge);
}

OrderedObject cancelUpdate(DesktopBridge& bridge, const QVariantList&)
{
    bridge.updateManager()->cancelUpdate();
    return statusOf(bridge);
}

OrderedObject applyUpdate(DesktopBridge& bridge, const QVariantList&)
{
    bridge.updateManager()->applyUpdate();
    return statusOf(bridge);
}

} // namespace vantro::updatemethods
