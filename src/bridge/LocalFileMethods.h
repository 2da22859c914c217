#pragma once

#include "app/OrderedJson.h"

#include <QVariantList>

namespace vantro {

class DesktopBridge;

// Handlers of the rows that reach single files by id: local artifacts, file handles and ADOC
// extraction. The work is the local store's (store/LocalArtifacts.cpp); revealing goes through
// the platform's file manager seam.
namespace localfilemethods {

OrderedObject getLocalArtifactStatus(DesktopBridge& bridge, const QVariantList& args);
OrderedObject openLocalArtifactFolder(DesktopBridge& bridge, const QVariantList& args);
OrderedObject removeLocalArtifact(DesktopBridge& bridge, const QVariantList& args);
OrderedObject removeLocalDocumentArtifacts(DesktopBridge& bridge, const QVariantList& args);
OrderedObject extractAdocFiles(DesktopBridge& bridge, const QVariantList& args);
OrderedObject hashFile(DesktopBridge& bridge, const QVariantList& args);
OrderedObject openLocalFile(DesktopBridge& bridge, const QVariantList& args);
OrderedObject revealLocalFile(DesktopBridge& bridge, const QVariantList& args);

} // namespace localfilemethods
} // namespace vantro
