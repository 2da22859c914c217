// The "sign:" method table and the handlers of the rows whose components are built.
#include "app/AppState.h"
#include "app/Errors.h"
#include "bridge/BridgeArgs.h"
#include "bridge/BridgeDispatch.h"
#include "bridge/BridgeLogging.h"
#include "bridge/DesktopBridge.h"
#include "bridge/DesktopShell.h"
#include "store/LocalStore.h"

#include <QDir>
#include <QFileInfo>
#include <QUrl>

namespace vantro {

namespace {

using bridgeargs::objectAt;
using bridgeargs::stringAt;

constexpr char kLocalRootDialogTitle[] = "Vantro Sign folder";
constexpr char kPickFilesTitle[] = "Pasirinkite dokumentus";
constexpr char kPickFilesFilter[] = "Vantro Sign documents (*.pdf *.doc *.docx *.odt *.xls *.xlsx "
                                    "*.txt *.png *.jpg *.jpeg *.adoc *.asice)";

// Windows file systems compare names without case; a root spelt differently is the same root.
#ifdef Q_OS_WIN
constexpr Qt::CaseSensitivity kPathCase = Qt::CaseInsensitive;
#else
constexpr Qt::CaseSensitivity kPathCase = Qt::CaseSensitive;
#endif

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

// A setter that could not save leaves the page with a value that will not survive a restart;
// say so instead of answering as if it had worked.
void requireSaved(const AppState& state, bool saved)
{
    if (!saved)
        fail(QStringLiteral("VANTRO_SIGN_SETTINGS_NOT_SAVED"), state.lastError());
}

bool isInside(const QString& root, const QString& path)
{
    if (root.isEmpty() || path.isEmpty())
        return false;
    if (path.compare(root, kPathCase) == 0)
        return true;
    const QString prefix = root.endsWith(QLatin1Char('/')) ? root : root + QLatin1Char('/');
    return path.startsWith(prefix, kPathCase);
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
    requireSaved(state, state.setTheme(stringAt(args, 0)));
    return DesktopBridge::ok(state.theme());
}

OrderedObject getLocalDeleteSettings(DesktopBridge& bridge, const QVariantList&)
{
    return DesktopBridge::ok(bridge.state()->localDeleteSettings().toVariantMap());
}

OrderedObject setLocalDeleteSettings(DesktopBridge& bridge, const QVariantList& args)
{
    AppState& state = *bridge.state();
    requireSaved(state,
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
    requireSaved(state, state.setLocalRoot(chosen));
    return DesktopBridge::ok(state.localRoot());
}

OrderedObject pickFiles(DesktopBridge& bridge, const QVariantList&)
{
    const QStringList files = bridge.desktopShell()->pickFiles(QString::fromUtf8(kPickFilesTitle),
                                                               bridge.state()->localRoot(),
                                                               QString::fromUtf8(kPickFilesFilter));
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
    return openFolder(bridge, QDir::cleanPath(QDir(state.localRoot()).absolutePath()));
}

OrderedObject outsideRoot()
{
    return DesktopBridge::error(
        QStringLiteral("VANTRO_SIGN_LOCAL_PATH_OUTSIDE_ROOT"),
        QStringLiteral("Requested folder is outside the Vantro Sign local root."));
}

OrderedObject openLocalFolder(DesktopBridge& bridge, const QVariantList& args)
{
    const QString root = QDir::cleanPath(QDir(bridge.state()->localRoot()).absolutePath());
    const QString relative = QDir::fromNativeSeparators(stringAt(args, 0).trimmed());
    const QString target = QDir::cleanPath(QDir(root).absoluteFilePath(relative));
    if (!isInside(root, target))
        return outsideRoot();
    const QFileInfo info(target);
    if (!info.isDir())
        return DesktopBridge::error(QStringLiteral("VANTRO_SIGN_LOCAL_FOLDER_MISSING"),
                                    QStringLiteral("Vietinio aplanko atidaryti nepavyko."));
    // A link inside the root may still lead out of it.
    if (!isInside(QFileInfo(root).canonicalFilePath(), info.canonicalFilePath()))
        return outsideRoot();
    return openFolder(bridge, target);
}

OrderedObject activate(DesktopBridge&, const QVariantList&)
{
    return DesktopBridge::error(QStringLiteral("VANTRO_SIGN_ACTIVATION_NATIVE_SCREEN_REQUIRED"),
                                QStringLiteral("Use the native activation screen in this build."));
}

BridgeMethod row(const char* name, BridgeHandler handler, unsigned needs = NeedsState)
{
    return {name, handler, nullptr, needs};
}

BridgeMethod pending(const char* name, const char* component)
{
    return {name, nullptr, component, NeedsNothing};
}

} // namespace

const DispatchTable& signMethodTable()
{
    constexpr unsigned kDesktop = NeedsState | NeedsShell;
    static const DispatchTable table{
        "VANTRO_SIGN_COMPONENT_UNAVAILABLE",
        {
            row("sign:getStatus", getStatus),
            row("sign:getUpdateStatus", updateManagerUnavailable, NeedsNothing),
            row("sign:checkForUpdates", updateManagerUnavailable, NeedsNothing),
            row("sign:startUpdate", updateManagerUnavailable, NeedsNothing),
            row("sign:cancelUpdate", updateManagerUnavailable, NeedsNothing),
            row("sign:applyUpdate", updateManagerUnavailable, NeedsNothing),
            row("sign:getTheme", getTheme),
            row("sign:setTheme", setTheme),
            row("sign:getLocalDeleteSettings", getLocalDeleteSettings),
            row("sign:setLocalDeleteSettings", setLocalDeleteSettings),
            row("sign:setQesVisualPosition", setQesVisualPosition),
            row("sign:getLocalRoot", getLocalRoot),
            row("sign:setLocalRoot", setLocalRoot, kDesktop),
            row("sign:pickFiles", pickFiles, kDesktop),
            pending("sign:reconcileLocalRoot", kReconcile),
            row("sign:listDocuments", listDocuments),
            row("sign:listJobs", listJobs),
            pending("sign:deleteLocalDocument", kDeletion),
            pending("sign:uploadLocalDocument", kUpload),
            pending("sign:runPdfTool", kPdfTools),
            pending("sign:listExternalInvitations", kInvitations),
            pending("sign:createExternalInvitation", kInvitations),
            pending("sign:cancelExternalInvitation", kInvitations),
            pending("sign:remindExternalInvitation", kInvitations),
            pending("sign:hashFile", kFileHandles),
            pending("sign:queueUpload", kUpload),
            pending("sign:mirrorArtifact", kMirrorQueue),
            pending("sign:ensureLocalArtifactAndReveal", kArtifactReveal),
            pending("sign:cancelArtifactReveal", kArtifactReveal),
            pending("sign:getMirrorStatus", kMirrorQueue),
            pending("sign:retryMirrorQueue", kMirrorQueue),
            pending("sign:openServerDocument", kPreviews),
            pending("sign:renderServerDocumentPreview", kPreviews),
            pending("sign:warmServerDocumentPreview", kPreviews),
            pending("sign:showNativePreview", kNativePreview),
            pending("sign:closeNativePreview", kNativePreview),
            row("sign:openLocalRoot", openLocalRoot, kDesktop),
            row("sign:openLocalFolder", openLocalFolder, kDesktop),
            pending("sign:openLocalArtifactFolder", kArtifacts),
            pending("sign:getLocalArtifactStatus", kArtifacts),
            pending("sign:removeLocalArtifact", kArtifacts),
            pending("sign:removeLocalDocumentArtifacts", kArtifacts),
            pending("sign:extractAdocFiles", kAdoc),
            pending("sign:openLocalFile", kFileHandles),
            pending("sign:revealLocalFile", kFileHandles),
            row("sign:activate", activate, NeedsNothing),
        }};
    return table;
}

} // namespace vantro
