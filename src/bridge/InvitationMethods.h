#pragma once

#include "app/OrderedJson.h"

#include <QVariantList>

namespace vantro {

class DesktopBridge;

// Handlers of the external invitation rows. The work is artifacts/ExternalInvitations.
namespace invitationmethods {

OrderedObject listExternalInvitations(DesktopBridge& bridge, const QVariantList& args);
OrderedObject createExternalInvitation(DesktopBridge& bridge, const QVariantList& args);
OrderedObject cancelExternalInvitation(DesktopBridge& bridge, const QVariantList& args);
OrderedObject remindExternalInvitation(DesktopBridge& bridge, const QVariantList& args);

} // namespace invitationmethods
} // namespace vantro
