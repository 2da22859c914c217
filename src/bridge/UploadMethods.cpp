#include "bridge/UploadMethods.h"

#include "artifacts/DocumentUpload.h"
#include "bridge/BridgeArgs.h"
#include "bridge/DesktopBridge.h"

#include <QJsonObject>

namespace vantro::uploadmethods {

using bridgeargs::objectAt;
using bridgeargs::stringAt;

namespace {

DocumentUpload uploader(DesktopBridge& bridge)
{
    return DocumentUpload(*bridge.localStore(), *bridge.api());
}

} // namespace

OrderedObject uploadLocalDocument(DesktopBridge& bridge, const QVariantList& args)
{
    return DesktopBridge::ok(uploader(bridge).uploadLocalDocument(stringAt(args, 0)).toVariant());
}

OrderedObject queueUpload(DesktopBridge& bridge, const QVariantList& args)
{
    const QJsonObject intent = QJsonObject::fromVariantMap(objectAt(args, 1));
    return DesktopBridge::ok(uploader(bridge).queueUpload(stringAt(args, 0), intent).toVariant());
}

} // namespace vantro::uploadmethods
