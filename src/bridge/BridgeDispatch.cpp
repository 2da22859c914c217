#include "bridge/BridgeDispatch.h"

#include "bridge/DesktopBridge.h"

namespace vantro {

namespace {

OrderedObject unavailable(const DispatchTable& table, const BridgeMethod& row)
{
    return DesktopBridge::error(
        QString::fromLatin1(table.unavailableCode),
        QStringLiteral("%1 is not available in this build.").arg(QString::fromUtf8(row.component)));
}

OrderedObject missingRequirement(const DesktopBridge& bridge, unsigned needs)
{
    if ((needs & NeedsState) && !bridge.state())
        return DesktopBridge::error(QStringLiteral("VANTRO_SIGN_STATE_UNAVAILABLE"),
                                    QStringLiteral("Vantro Sign state is unavailable."));
    if ((needs & NeedsShell) && !bridge.desktopShell())
        return DesktopBridge::error(
            QStringLiteral("VANTRO_SIGN_DESKTOP_SHELL_UNAVAILABLE"),
            QStringLiteral("Dialogs and folder opening are only available on the main thread."));
    if ((needs & NeedsUpdates) && !bridge.updateManager())
        return DesktopBridge::error(QStringLiteral("VANTRO_SIGN_UPDATE_MANAGER_UNAVAILABLE"),
                                    QStringLiteral("Update manager is unavailable."));
    return {};
}

} // namespace

OrderedObject dispatchMethod(const DispatchTable& table, DesktopBridge& bridge,
                             const QString& method, const QVariantList& args)
{
    for (const BridgeMethod& row : table.methods) {
        if (method != QLatin1String(row.name))
            continue;
        if (!row.handler)
            return unavailable(table, row);
        const OrderedObject missing = missingRequirement(bridge, row.needs);
        if (!missing.isEmpty())
            return missing;
        return row.handler(bridge, args);
    }
    return DesktopBridge::error(QStringLiteral("VANTRO_SIGN_BRIDGE_METHOD_UNKNOWN"), method);
}

} // namespace vantro
