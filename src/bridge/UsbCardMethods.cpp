#include "bridge/UsbCardMethods.h"

#include "app/Errors.h"
#include "bridge/BridgeArgs.h"
#include "bridge/DesktopBridge.h"
#include "usb/HelperRegistry.h"
#include "usb/NativeHostClient.h"

#include <QJsonObject>

namespace vantro::usbmethods {

namespace {

constexpr int kCertificateTimeoutMs = 60000;
constexpr int kSignTimeoutMs = 180000;
constexpr int kSignBatchTimeoutMs = 300000;
constexpr int kAuthenticateTimeoutMs = 120000;

OrderedObject runHostCommand(DesktopBridge& bridge, const QString& command,
                             const QVariantMap& arguments, int timeoutMs)
{
    const QString host = bridge.locateHelperExecutable(nativeHostFileName());
    if (host.isEmpty())
        throw CodedError(kHelperUnavailable,
                         QStringLiteral("Vantro Sign native host was not found."));
    return DesktopBridge::ok(runNativeHostCommand(host, command, arguments, timeoutMs));
}

} // namespace

OrderedObject isAvailable(DesktopBridge& bridge, const QVariantList&)
{
    return DesktopBridge::ok(!bridge.locateHelperExecutable(nativeHostFileName()).isEmpty());
}

OrderedObject diagnose(DesktopBridge& bridge, const QVariantList&)
{
    const QString cli = bridge.locateHelperExecutable(middlewareCliFileName());
    if (cli.isEmpty())
        throw CodedError(kHelperUnavailable,
                         QStringLiteral("Vantro Sign middleware CLI was not found."));
    QJsonObject report = runMiddlewareDiagnose(cli, kMiddlewareDiagnoseTimeoutMs);
    QVariantMap value = report.toVariantMap();
    value.insert(QStringLiteral("vantroRuntime"), bridge.helperRuntime().toVariant());
    return DesktopBridge::ok(value);
}

// The page's parameters are not the host's business here: only the origin goes along.
OrderedObject getSigningCertificate(DesktopBridge& bridge, const QVariantList&)
{
    return runHostCommand(bridge, QStringLiteral("get-signing-certificate"), {},
                          kCertificateTimeoutMs);
}

OrderedObject sign(DesktopBridge& bridge, const QVariantList& args)
{
    return runHostCommand(bridge, QStringLiteral("sign"), bridgeargs::objectAt(args, 0),
                          kSignTimeoutMs);
}

OrderedObject signBatch(DesktopBridge& bridge, const QVariantList& args)
{
    return runHostCommand(bridge, QStringLiteral("sign-batch"), bridgeargs::objectAt(args, 0),
                          kSignBatchTimeoutMs);
}

OrderedObject authenticate(DesktopBridge& bridge, const QVariantList& args)
{
    return runHostCommand(bridge, QStringLiteral("authenticate"), bridgeargs::objectAt(args, 0),
                          kAuthenticateTimeoutMs);
}

} // namespace vantro::usbmethods
