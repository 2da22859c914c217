#include "bridge/LocalRootMethods.h"

#include "app/AppState.h"
#include "bridge/BridgeArgs.h"
#include "bridge/BridgeLogging.h"
#include "bridge/DesktopBridge.h"
#include "bridge/DesktopShell.h"
#include "store/LocalStore.h"
#include "store/RootRules.h"

#include <QDir>
#include <QFileInfo>
#include <QUrl>

namespace vantro::localrootmethods {

namespace {

OrderedObject outsideRoot()
{
    return DesktopBridge::error(
        QStringLiteral("VANTRO_SIGN_LOCAL_PATH_OUTSIDE_ROOT"),
        QStringLiteral("Requested folder is outside the Vantro Sign local root."));
}

// Opens a folder with the desktop's default handler: {opened, path}.
OrderedObject openFolder(DesktopBridge& bridge, const QString& path)
{
    const bool opened = bridge.desktopShell()->openUrl(QUrl::fromLocalFile(path));
    if (!opened)
        qCWarning(lcBridge) << "desktop refused to open folder" << path;
    return DesktopBridge::ok(OrderedObject{
        {QStringLiteral("opened"), opened},
        {QStringLiteral("path"),
         path}}.toVariant());
}

} // namespace

// The summary goes to the page under `summary`; the completion hook sends it on as the
// reconciled event.
OrderedObject reconcileLocalRoot(DesktopBridge& bridge, const QVariantList&)
{
    const OrderedObject summary = bridge.localStore()->reconcileLocalRoot();
    return DesktopBridge::ok(
        OrderedObject{{QStringLiteral("summary"), summary.toVariant()}}.toVariant());
}

OrderedObject deleteLocalDocument(DesktopBridge& bridge, const QVariantList& args)
{
    return DesktopBridge::ok(
        bridge.localStore()->deleteDocument(bridgeargs::stringAt(args, 0)).toVariant());
}

OrderedObject openLocalRoot(DesktopBridge& bridge, const QVariantList&)
{
    AppState& state = *bridge.state();
    if (!state.ensureLocalRoot())
        return DesktopBridge::error(QStringLiteral("VANTRO_SIGN_LOCAL_ROOT_MISSING"),
                                    QStringLiteral("Vietinio aplanko sukurti nepavyko."));
    return openFolder(bridge, bridge.localStore()->localRoot());
}

OrderedObject openLocalFolder(DesktopBridge& bridge, const QVariantList& args)
{
    const QString root = bridge.localStore()->localRoot();
    const QString relative = QDir::fromNativeSeparators(bridgeargs::stringAt(args, 0).trimmed());
    const QString target = QDir::cleanPath(QDir(root).absoluteFilePath(relative));
    if (!rootrules::isSameOrInside(root, target))
        return outsideRoot();
    const QFileInfo info(target);
    if (!info.isDir())
        return DesktopBridge::error(QStringLiteral("VANTRO_SIGN_LOCAL_FOLDER_MISSING"),
                                    QStringLiteral("Vietinio aplanko atidaryti nepavyko."));
    // A link inside the root may still lead out of it.
    if (!rootrules::isSameOrInside(QFileInfo(root).canonicalFilePath(), info.canonicalFilePath()))
        return outsideRoot();
    return openFolder(bridge, target);
}

} // namespace vantro::localrootmethods
