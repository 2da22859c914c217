#include "bridge/LocalFileMethods.h"

#include "app/Errors.h"
#include "bridge/BridgeArgs.h"
#include "bridge/BridgeLogging.h"
#include "bridge/DesktopBridge.h"
#include "bridge/DesktopShell.h"
#include "platform/FileManager.h"
#include "store/LocalStore.h"

#include <QFileInfo>
#include <QUrl>

namespace vantro::localfilemethods {

using bridgeargs::objectAt;
using bridgeargs::stringAt;

namespace {

// The page names an artifact by its id, a relative path where it is expected and its service
// document; it has no service version id to give, so that source is not asked.
OrderedObject artifactStatus(DesktopBridge& bridge, const QVariantList& args)
{
    return bridge.localStore()->localArtifactStatus(stringAt(args, 0), QString(), stringAt(args, 2),
                                                    stringAt(args, 1));
}

bool openContainingFolder(DesktopBridge& bridge, const QString& path)
{
    return bridge.desktopShell()->openUrl(QUrl::fromLocalFile(QFileInfo(path).absolutePath()));
}

} // namespace

OrderedObject getLocalArtifactStatus(DesktopBridge& bridge, const QVariantList& args)
{
    return DesktopBridge::ok(artifactStatus(bridge, args).toVariant());
}

// Shows the exact artifact selected in the file manager; an artifact that is not on disk is
// refused rather than answered with some other folder.
OrderedObject openLocalArtifactFolder(DesktopBridge& bridge, const QVariantList& args)
{
    const OrderedObject status = artifactStatus(bridge, args);
    const QString path = status.value(QStringLiteral("path")).toString();
    if (status.value(QStringLiteral("status")).toString() != QLatin1String("LOCAL"))
        return DesktopBridge::error(QStringLiteral("VANTRO_SIGN_LOCAL_ARTIFACT_NOT_AVAILABLE"),
                                    QStringLiteral("The exact local artifact is not available."));
    const platform::RevealOutcome reveal = platform::revealSelected(path);
    const bool opened =
        reveal.shown || (reveal.openFolderInstead && openContainingFolder(bridge, path));
    if (!opened)
        fail(QStringLiteral("VANTRO_SIGN_LOCAL_ARTIFACT_REVEAL_FAILED"), reveal.error);
    return DesktopBridge::ok(OrderedObject{
        {QStringLiteral("opened"), true},
        {QStringLiteral("path"), path},
        {QStringLiteral("selected"),
         reveal.shown}}.toVariant());
}

OrderedObject removeLocalArtifact(DesktopBridge& bridge, const QVariantList& args)
{
    return DesktopBridge::ok(
        bridge.localStore()->removeLocalArtifacts(QString(), stringAt(args, 0)).toVariant());
}

OrderedObject removeLocalDocumentArtifacts(DesktopBridge& bridge, const QVariantList& args)
{
    return DesktopBridge::ok(bridge.localStore()
                                 ->removeLocalArtifacts(stringAt(args, 0), stringAt(args, 1))
                                 .toVariant());
}

OrderedObject extractAdocFiles(DesktopBridge& bridge, const QVariantList& args)
{
    return DesktopBridge::ok(bridge.localStore()->extractAdocFiles(objectAt(args, 0)).toVariant());
}

OrderedObject hashFile(DesktopBridge& bridge, const QVariantList& args)
{
    return DesktopBridge::ok(bridge.localStore()->hashFileHandle(stringAt(args, 0)).toVariant());
}

OrderedObject openLocalFile(DesktopBridge& bridge, const QVariantList& args)
{
    const QString path = bridge.localStore()->resolveFileHandle(stringAt(args, 0));
    const bool opened = bridge.desktopShell()->openUrl(QUrl::fromLocalFile(path));
    return DesktopBridge::ok(OrderedObject{{QStringLiteral("opened"), opened}}.toVariant());
}

OrderedObject revealLocalFile(DesktopBridge& bridge, const QVariantList& args)
{
    const QString path = bridge.localStore()->resolveFileHandle(stringAt(args, 0));
    const bool revealed = platform::startRevealSelected(path) || openContainingFolder(bridge, path);
    if (!revealed)
        qCWarning(lcBridge) << "could not reveal" << path;
    return DesktopBridge::ok(OrderedObject{{QStringLiteral("revealed"), revealed}}.toVariant());
}

} // namespace vantro::localfilemethods
