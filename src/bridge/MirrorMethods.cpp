#include "bridge/MirrorMethods.h"

#include "artifacts/MirrorQueue.h"
#include "bridge/BridgeArgs.h"
#include "bridge/DesktopBridge.h"

namespace vantro::mirrormethods {

using bridgeargs::objectAt;
using bridgeargs::stringAt;

namespace {

MirrorQueue queue(DesktopBridge& bridge)
{
    return MirrorQueue(*bridge.localStore(), *bridge.api());
}

} // namespace

OrderedObject mirrorArtifact(DesktopBridge& bridge, const QVariantList& args)
{
    return DesktopBridge::ok(queue(bridge).mirrorArtifact(objectAt(args, 0)).toVariant());
}

OrderedObject getMirrorStatus(DesktopBridge& bridge, const QVariantList& args)
{
    return DesktopBridge::ok(queue(bridge).status(stringAt(args, 0)).toVariant());
}

OrderedObject retryMirrorQueue(DesktopBridge& bridge, const QVariantList&)
{
    return DesktopBridge::ok(queue(bridge).retry().toVariant());
}

} // namespace vantro::mirrormethods
