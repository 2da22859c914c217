// The "sign:" method table and the handlers of the rows whose components are built.
#include "app/AppState.h"
#include "app/Errors.h"
#include "bridge/BridgeArgs.h"
#include "bridge/BridgeDispatch.h"
#include "bridge/BridgeLogging.h"
#include "bridge/DesktopBridge.h"
#include "bridge/DesktopShell.h"
#include "store/LocalStore.h"
#include "store/RootRules.h"

#include <QDir>
#include <QFileInfo>
#include <QUrl>

namespace vantro {

namespace {

using bridgeargs::objectAt;
using bridgeargs::stringAt;

constexpr char kLocalRootDialogTitle[] = "Vantro Sign folder";
constexpr char kPickFilesTitle[] = "Pasirinkite dokumentus";

// Components that are not part of this build yet; their rows answer "<name> is not available".
constexpr char kReconcile[] = "Local root reconciliation";
constexpr char kDeletion[] = "Local deletion";
constexpr char kUpload[] = "Upload";
constexpr char kPdfTools[] = "PDF tools";
constexpr char kInvitations[] = "External invitations";
constexpr char kFileHandles[] = "Local file handles";
constexpr char kMirrorQueue[] = "Mirror queue";
constexpr char kArtifactReveal[] = "Artifact reveal";
constexpr char kPreviews[] = "Document preview";
constexpr char kNativePreview[] = "Native preview";
constexpr char kArtifacts[] = "Local artifacts";
constexpr char kAdoc[] = "ADOC extraction";

// A setter whose save failed still changed the value in effect, so the page is answered with
// that value; the lost write is a diagnostic for the log, not an error of the call.
void warnIfNotSaved(const AppState& state, bool saved)
{
    if (!saved)
        qCWarning(lcBridge).noquote() << "settings not saved:" << state.lastError();
}

QString pickFilesFilter()
{
    QStringList patterns;
    for (const QString& suffix : rootrules::supportedDocumentSuffixes())
        patterns << QStringLiteral("*.") + suffix;
    return QStringLiteral("Vantro Sign documents (%1)").arg(patterns.join(QLatin1Char(' ')));
}

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

OrderedObject getStatus(DesktopBridge& bridge, const QVariantList&)
{
    return DesktopBridge::ok(bridge.state()->status(bridge.helperRuntime()).toVariant());
}

OrderedObject updateManagerUnavailable(DesktopBridge&, const QVariantList&)
{
    return DesktopBridge::error(QStringLiteral("VANTRO_SIGN_UPDATE_MANAGER_UNAVAILABLE"),
                                QStringLiteral("Update manager is unavailable."));
}

OrderedObject getTheme(DesktopBridge& bridge, const QVariantList&)
{
    return DesktopBridge::ok(bridge.state()->theme());
}

OrderedObject setTheme(DesktopBridge& bridge, const QVariantList& args)
{
    AppState& state = *bridge.state();
    warnIfNotSaved(state, state.setTheme(stringAt(args, 0)));
    return DesktopBridge::ok(state.theme());
}

OrderedObject getLocalDeleteSettings(DesktopBridge& bridge, const QVariantList&)
{
    return DesktopBridge::ok(bridge.state()->localDeleteSettings().toVariantMap());
}

OrderedObject setLocalDeleteSettings(DesktopBridge& bridge, const QVariantList& args)
{
    AppState& state = *bridge.state();
    warnIfNotSaved(state,
                   state.setLocalDeleteSettings(QJsonObject::fromVariantMap(objectAt(args, 0))));
    return DesktopBridge::ok(state.localDeleteSettings().toVariantMap());
}

OrderedObject setQesVisualPosition(DesktopBridge& bridge, const QVariantList& args)
{
    // An invalid position is ignored by the state; the page learns the outcome from the status.
    bridge.state()->setSignerVisualPosition(stringAt(args, 0));
    return getStatus(bridge, args);
}

OrderedObject getLocalRoot(DesktopBridge& bridge, const QVariantList&)
{
    AppState& state = *bridge.state();
    if (!state.ensureLocalRoot())
        qCWarning(lcBridge) << "local root could not be created:" << state.lastError();
    return DesktopBridge::ok(state.localRoot());
}

OrderedObject setLocalRoot(DesktopBridge& bridge, const QVariantList&)
{
    AppState& state = *bridge.state();
    const QString chosen = bridge.desktopShell()->pickFolder(
        QString::fromUtf8(kLocalRootDialogTitle), state.localRoot());
    if (chosen.trimmed().isEmpty())
        return DesktopBridge::error(QStringLiteral("VANTRO_SIGN_LOCAL_ROOT_NOT_SELECTED"),
                                    QStringLiteral("Local root was not selected."));
    warnIfNotSaved(state, state.setLocalRoot(chosen));
    return DesktopBridge::ok(state.localRoot());
}

OrderedObject pickFiles(DesktopBridge& bridge, const QVariantList&)
{
    const QStringList files = bridge.desktopShell()->pickFiles(
        QString::fromUtf8(kPickFilesTitle), bridge.state()->localRoot(), pickFilesFilter());
    // A cancelled dialog is an import of no files, which the import refuses with its own code.
    return DesktopBridge::ok(bridge.localStore()->importFiles(files).toVariantList());
}

OrderedObject listDocuments(DesktopBridge& bridge, const QVariantList& args)
{
    return DesktopBridge::ok(bridge.localStore()->listDocuments(objectAt(args, 0)).toVariantList());
}

OrderedObject listJobs(DesktopBridge& bridge, const QVariantList& args)
{
    return DesktopBridge::ok(bridge.localStore()->listJobs(stringAt(args, 0)).toVariantList());
}

OrderedObject openLocalRoot(DesktopBridge& bridge, const QVariantList&)
{
    AppState& state = *bridge.state();
    if (!state.ensureLocalRoot())
        return DesktopBridge::error(QStringLiteral("VANTRO_SIGN_LOCAL_ROOT_MISSING"),
                                    QStringLiteral("Vietinio aplanko sukurti nepavyko."));
    return openFolder(bridge, bridge.localStore()->localRoot());
}

OrderedObject outsideRoot()
{
    return DesktopBridge::error(
        QStringLiteral("VANTRO_SIGN_LOCAL_PATH_OUTSIDE_ROOT"),
        QStringLiteral("Requested folder is outside the Vantro Sign local root."));
}

OrderedObject openLocalFolder(DesktopBridge& bridge, const QVariantList& args)
{
    const QString root = bridge.localStore()->localRoot();
    const QString relative = QDir::fromNativeSeparators(stringAt(args, 0).trimmed());
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

OrderedObject activate(DesktopBridge&, const QVariantList&)
{
    return DesktopBridge::error(QStringLiteral("VANTRO_SIGN_ACTIVATION_NATIVE_SCREEN_REQUIRED"),
                                QStringLiteral("Use the native activation screen in this build."));
}

} // namespace

const DispatchTable& signMethodTable()
{
    constexpr unsigned kDesktop = NeedsState | NeedsShell;
    static const DispatchTable table{
        "VANTRO_SIGN_COMPONENT_UNAVAILABLE",
        {
            methodRow("sign:getStatus", getStatus),
            methodRow("sign:getUpdateStatus", updateManagerUnavailable, NeedsNothing),
            methodRow("sign:checkForUpdates", updateManagerUnavailable, NeedsNothing),
            methodRow("sign:startUpdate", updateManagerUnavailable, NeedsNothing),
            methodRow("sign:cancelUpdate", updateManagerUnavailable, NeedsNothing),
            methodRow("sign:applyUpdate", updateManagerUnavailable, NeedsNothing),
            methodRow("sign:getTheme", getTheme),
            methodRow("sign:setTheme", setTheme),
            methodRow("sign:getLocalDeleteSettings", getLocalDeleteSettings),
            methodRow("sign:setLocalDeleteSettings", setLocalDeleteSettings),
            methodRow("sign:setQesVisualPosition", setQesVisualPosition),
            methodRow("sign:getLocalRoot", getLocalRoot),
            methodRow("sign:setLocalRoot", setLocalRoot, kDesktop),
            methodRow("sign:pickFiles", pickFiles, kDesktop),
            pendingRow("sign:reconcileLocalRoot", kReconcile),
            methodRow("sign:listDocuments", listDocuments),
            methodRow("sign:listJobs", listJobs),
            pendingRow("sign:deleteLocalDocument", kDeletion),
            pendingRow("sign:uploadLocalDocument", kUpload),
            pendingRow("sign:runPdfTool", kPdfTools),
            pendingRow("sign:listExternalInvitations", kInvitations),
            pendingRow("sign:createExternalInvitation", kInvitations),
            pendingRow("sign:cancelExternalInvitation", kInvitations),
            pendingRow("sign:remindExternalInvitation", kInvitations),
            pendingRow("sign:hashFile", kFileHandles),
            pendingRow("sign:queueUpload", kUpload),
            pendingRow("sign:mirrorArtifact", kMirrorQueue),
            pendingRow("sign:ensureLocalArtifactAndReveal", kArtifactReveal),
            pendingRow("sign:cancelArtifactReveal", kArtifactReveal),
            pendingRow("sign:getMirrorStatus", kMirrorQueue),
            pendingRow("sign:retryMirrorQueue", kMirrorQueue),
            pendingRow("sign:openServerDocument", kPreviews),
            pendingRow("sign:renderServerDocumentPreview", kPreviews),
            pendingRow("sign:warmServerDocumentPreview", kPreviews),
            pendingRow("sign:showNativePreview", kNativePreview),
            pendingRow("sign:closeNativePreview", kNativePreview),
            methodRow("sign:openLocalRoot", openLocalRoot, kDesktop),
            methodRow("sign:openLocalFolder", openLocalFolder, kDesktop),
            pendingRow("sign:openLocalArtifactFolder", kArtifacts),
            pendingRow("sign:getLocalArtifactStatus", kArtifacts),
            pendingRow("sign:removeLocalArtifact", kArtifacts),
            pendingRow("sign:removeLocalDocumentArtifacts", kArtifacts),
            pendingRow("sign:extractAdocFiles", kAdoc),
            pendingRow("sign:openLocalFile", kFileHandles),
            pendingRow("sign:revealLocalFile", kFileHandles),
            methodRow("sign:activate", activate, NeedsNothing),
        }};
    return table;
}

} // namespace vantro
