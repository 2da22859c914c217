// The "sign:" method table, in dispatch order, and the handlers of the settings and import rows.
// Each other family's handlers live in a file of their own beside this one (LocalRootMethods,
// LocalFileMethods, UploadMethods, InvitationMethods, MirrorMethods); the work itself is in the
// subsystem's folder.
#include "app/AppState.h"
#include "bridge/BridgeArgs.h"
#include "bridge/BridgeDispatch.h"
#include "bridge/BridgeLogging.h"
#include "bridge/DesktopBridge.h"
#include "bridge/DesktopShell.h"
#include "bridge/InvitationMethods.h"
#include "bridge/LocalFileMethods.h"
#include "bridge/LocalRootMethods.h"
#include "bridge/MirrorMethods.h"
#include "bridge/UpdateMethods.h"
#include "bridge/UploadMethods.h"
#include "store/LocalStore.h"
#include "store/RootRules.h"

namespace vantro {

namespace {

using bridgeargs::objectAt;
using bridgeargs::stringAt;

constexpr char kLocalRootDialogTitle[] = "Vantro Sign folder";
constexpr char kPickFilesTitle[] = "Pasirinkite dokumentus";

// Components that are not part of this build yet; their rows answer "<name> is not available".
constexpr char kPdfTools[] = "PDF tools";
constexpr char kArtifactReveal[] = "Artifact reveal";
constexpr char kPreviews[] = "Document preview";
constexpr char kNativePreview[] = "Native preview";

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

OrderedObject getStatus(DesktopBridge& bridge, const QVariantList&)
{
    return DesktopBridge::ok(bridge.state()->status(bridge.helperRuntime()).toVariant());
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
            methodRow("sign:getUpdateStatus", updatemethods::getUpdateStatus, NeedsUpdates),
            methodRow("sign:checkForUpdates", updatemethods::checkForUpdates, NeedsUpdates),
            methodRow("sign:startUpdate", updatemethods::startUpdate, NeedsUpdates),
            methodRow("sign:cancelUpdate", updatemethods::cancelUpdate, NeedsUpdates),
            methodRow("sign:applyUpdate", updatemethods::applyUpdate, NeedsUpdates),
            methodRow("sign:getTheme", getTheme),
            methodRow("sign:setTheme", setTheme),
            methodRow("sign:getLocalDeleteSettings", getLocalDeleteSettings),
            methodRow("sign:setLocalDeleteSettings", setLocalDeleteSettings),
            methodRow("sign:setQesVisualPosition", setQesVisualPosition),
            methodRow("sign:getLocalRoot", getLocalRoot),
            methodRow("sign:setLocalRoot", setLocalRoot, kDesktop),
            methodRow("sign:pickFiles", pickFiles, kDesktop),
            methodRow("sign:reconcileLocalRoot", localrootmethods::reconcileLocalRoot),
            methodRow("sign:listDocuments", listDocuments),
            methodRow("sign:listJobs", listJobs),
            methodRow("sign:deleteLocalDocument", localrootmethods::deleteLocalDocument),
            methodRow("sign:uploadLocalDocument", uploadmethods::uploadLocalDocument),
            pendingRow("sign:runPdfTool", kPdfTools),
            methodRow("sign:listExternalInvitations", invitationmethods::listExternalInvitations),
            methodRow("sign:createExternalInvitation", invitationmethods::createExternalInvitation),
            methodRow("sign:cancelExternalInvitation", invitationmethods::cancelExternalInvitation),
            methodRow("sign:remindExternalInvitation", invitationmethods::remindExternalInvitation),
            methodRow("sign:hashFile", localfilemethods::hashFile),
            methodRow("sign:queueUpload", uploadmethods::queueUpload),
            methodRow("sign:mirrorArtifact", mirrormethods::mirrorArtifact),
            pendingRow("sign:ensureLocalArtifactAndReveal", kArtifactReveal),
            pendingRow("sign:cancelArtifactReveal", kArtifactReveal),
            methodRow("sign:getMirrorStatus", mirrormethods::getMirrorStatus),
            methodRow("sign:retryMirrorQueue", mirrormethods::retryMirrorQueue),
            pendingRow("sign:openServerDocument", kPreviews),
            pendingRow("sign:renderServerDocumentPreview", kPreviews),
            pendingRow("sign:warmServerDocumentPreview", kPreviews),
            pendingRow("sign:showNativePreview", kNativePreview),
            pendingRow("sign:closeNativePreview", kNativePreview),
            methodRow("sign:openLocalRoot", localrootmethods::openLocalRoot, kDesktop),
            methodRow("sign:openLocalFolder", localrootmethods::openLocalFolder, kDesktop),
            methodRow("sign:openLocalArtifactFolder", localfilemethods::openLocalArtifactFolder,
                      kDesktop),
            methodRow("sign:getLocalArtifactStatus", localfilemethods::getLocalArtifactStatus),
            methodRow("sign:removeLocalArtifact", localfilemethods::removeLocalArtifact),
            methodRow("sign:removeLocalDocumentArtifacts",
                      localfilemethods::removeLocalDocumentArtifacts),
            methodRow("sign:extractAdocFiles", localfilemethods::extractAdocFiles),
            methodRow("sign:openLocalFile", localfilemethods::openLocalFile, kDesktop),
            methodRow("sign:revealLocalFile", localfilemethods::revealLocalFile, kDesktop),
            methodRow("sign:activate", activate, NeedsNothing),
        }};
    return table;
}

} // namespace vantro
