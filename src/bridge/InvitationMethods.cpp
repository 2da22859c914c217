#include "bridge/InvitationMethods.h"

#include "artifacts/ExternalInvitations.h"
#include "bridge/BridgeArgs.h"
#include "bridge/DesktopBridge.h"

namespace vantro::invitationmethods {

using bridgeargs::objectAt;
using bridgeargs::stringAt;

namespace {

ExternalInvitations invitations(DesktopBridge& bridge)
{
    return ExternalInvitations(*bridge.localStore(), *bridge.api());
}

} // namespace

OrderedObject listExternalInvitations(DesktopBridge& bridge, const QVariantList& args)
{
    return DesktopBridge::ok(invitations(bridge).list(stringAt(args, 0)).toVariantList());
}

OrderedObject createExternalInvitation(DesktopBridge& bridge, const QVariantList& args)
{
    const QJsonObject input = QJsonObject::fromVariantMap(objectAt(args, 1));
    return DesktopBridge::ok(invitations(bridge).create(stringAt(args, 0), input).toVariant());
}

OrderedObject cancelExternalInvitation(DesktopBridge& bridge, const QVariantList& args)
{
    return DesktopBridge::ok(invitations(bridge).cancel(stringAt(args, 0)).toVariant());
}

OrderedObject remindExternalInvitation(DesktopBridge& bridge, const QVariantList& args)
{
    return DesktopBridge::ok(invitations(bridge).remind(stringAt(args, 0)).toVariant());
}

} // namespace vantro::invitationmethods
