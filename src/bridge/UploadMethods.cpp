#include "bridge/UploadMethods.h"

#include "app/Errors.h"
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

// The page is told plainly that the document is gone, not given the exception text.
OrderedObject uploadLocalDocument(DesktopBridge& bridge, const QVariantList& args)
{
    try {
        return DesktopBridge::ok(
            uploader(bridge).uploadLocalDocument(stringAt(args, 0)).toVariant());
    } catch (const VantroError& error) {
        if (error.code() != QLatin1String(DocumentUpload::kNotFound))
            throw;
        return DesktopBridge::error(error.code(),
                                    QString::fromLatin1(DocumentUpload::kNotFoundMessage));
    }
}

OrderedObject queueUpload(DesktopBridge& bridge, const QVariantList& args)
{
    const QJsonObject intent = QJsonObject::fromVariantMap(objectAt(args, 1));
    return DesktopBridge::ok(uploader(bridge).queueUpload(stringAt(args, 0), intent).toVariant());
}

} // namespace vantro::uploadmethods
