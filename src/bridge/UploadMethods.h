#pragma once

#include "app/OrderedJson.h"

#include <QVariantList>

namespace vantro {

class DesktopBridge;

// Handlers of the upload rows. The work is artifacts/DocumentUpload over the service client's
// multipart upload (api/SignApiTransfers.cpp).
namespace uploadmethods {

OrderedObject uploadLocalDocument(DesktopBridge& bridge, const QVariantList& args);
OrderedObject queueUpload(DesktopBridge& bridge, const QVariantList& args);

} // namespace uploadmethods
} // namespace vantro
