#include "bridge/BridgeChannel.h"

#include "api/SignApiClient.h"
#include "app/AppState.h"
#include "bridge/BridgeArgs.h"
#include "bridge/BridgeLogging.h"
#include "bridge/DesktopBridge.h"
#include "usb/RuntimeBridge.h"

#include <QDir>
#include <QFutureWatcher>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtConcurrent/QtConcurrentRun>
#include <QThreadPool>

namespace vantro {

namespace {

const QString kRevealMethod = QStringLiteral("sign:ensureLocalArtifactAndReveal");
const QString kReconcileMethod = QStringLiteral("sign:reconcileLocalRoot");

// Runs one asynchronous call on the worker: its own components, built and destroyed here, so
// nothing of the main thread's is touched from the pool.
OrderedObject runOnWorker(const WorkerFactory& factory,
                          const std::shared_ptr<HelperRegistry>& helpers, const QString& method,
                          const QVariantList& args, const QString& sourceUri)
{
    return DesktopBridge::guarded(method, [&] {
        std::unique_ptr<WorkerComponents> components = factory ? factory() : nullptr;
        if (!components || !components->bridge)
            return DesktopBridge::error(QStringLiteral("VANTRO_SIGN_BRIDGE_ERROR"),
                                        QStringLiteral("Worker components are unavailable."));
        components->bridge->useHelperRegistry(helpers);
        return components->bridge->handle(method, args, sourceUri);
    });
}

// The page names each reveal with a text id; anything else cannot be cancelled later.
QString revealOperationId(const QVariantList& args)
{
    const QVariant id = bridgeargs::objectAt(args, 0).value(QStringLiteral("operationId"));
    return id.typeId() == QMetaType::QString ? id.toString().trimmed() : QString();
}

std::shared_ptr<HelperRegistry> helperRegistryOf(const DesktopBridge* bridge)
{
    return bridge ? bridge->helperRegistry() : nullptr;
}

bool isOkResult(const OrderedObject& result)
{
    return result.value(QStringLiteral("ok")).toBool();
}

} // namespace

// Members go in reverse order: the bridge and its store before the client and the state.
WorkerComponents::~WorkerComponents() = default;

WorkerFactory defaultWorkerFactory(const QString& deviceJsonPath,
                                   std::function<void(SignApiClient&)> configure)
{
    return [deviceJsonPath, configure] {
        auto components = std::make_unique<WorkerComponents>();
        components->state = std::make_unique<AppState>(deviceJsonPath);
        components->runtime = std::make_unique<RuntimeBridge>();
        components->api = std::make_unique<SignApiClient>(components->state.get());
        if (configure)
            configure(*components->api);
        components->bridge = std::make_unique<DesktopBridge>(
            components->state.get(), components->runtime.get(), components->api.get());
        return components;
    };
}

BridgeChannel::BridgeChannel(DesktopBridge* bridge, SignApiClient* api, WorkerFactory workers,
                             QObject* parent)
    : QObject(parent)
    , m_bridge(bridge)
    , m_api(api)
    , m_workers(std::move(workers))
{
}

BridgeChannel::~BridgeChannel() = default;

void BridgeChannel::handleWebMessage(const QString& json, const QString& sourceUri)
{
    if (!m_view)
        return;
    const QJsonDocument document = QJsonDocument::fromJson(json.toUtf8());
    if (!document.isObject())
        return;
    const QJsonObject call = document.object();
    const QJsonValue marker = call.value(QStringLiteral("vantroSignBridge"));
    const QString id = call.value(QStringLiteral("id")).toString();
    if (!marker.isBool() || !marker.toBool() || id.isEmpty())
        return;
    const QString method = call.value(QStringLiteral("method")).toString();
    const QVariantList args = call.value(QStringLiteral("args")).toArray().toVariantList();

    if (DesktopBridge::isAsynchronous(method)) {
        runAsync(id, method, args, sourceUri);
        return;
    }
    const OrderedObject result =
        m_bridge ? m_bridge->handle(method, args, sourceUri)
                 : DesktopBridge::error(QStringLiteral("VANTRO_SIGN_BRIDGE_ERROR"),
                                        QStringLiteral("Desktop bridge is unavailable."));
    postResult(id, result);
}

void BridgeChannel::runAsync(const QString& id, const QString& method, const QVariantList& args,
                             const QString& sourceUri)
{
    QString operationId;
    if (method == kRevealMethod) {
        operationId = revealOperationId(args);
        if (!registerRevealOperation(operationId)) {
            postResult(id, DesktopBridge::error(
                               QStringLiteral("VANTRO_SIGN_ARTIFACT_REVEAL_OPERATION_INVALID"),
                               QStringLiteral(
                                   "Artifact reveal operation id is invalid or already active.")));
            return;
        }
    }

    auto* watcher = new QFutureWatcher<OrderedObject>(this);
    connect(watcher, &QFutureWatcherBase::finished, this, [this, watcher, id, method, operationId] {
        const OrderedObject result = watcher->result();
        watcher->deleteLater();
        applyCompletionHook(method, result);
        if (!operationId.isEmpty())
            m_activeReveals.remove(operationId);
        postResult(id, result);
    });
    watcher->setFuture(QtConcurrent::run(QThreadPool::globalInstance(), runOnWorker, m_workers,
                                         helperRegistryOf(m_bridge), method, args, sourceUri));
}

bool BridgeChannel::registerRevealOperation(const QString& operationId)
{
    if (operationId.isEmpty() || m_activeReveals.contains(operationId))
        return false;
    m_activeReveals.insert(operationId);
    return true;
}

void BridgeChannel::applyCompletionHook(const QString& method, const OrderedObject& result)
{
    if (!isOkResult(result))
        return;
    const QVariant value = result.value(QStringLiteral("value"));
    if (method == kReconcileMethod) {
        announceReconciliation(variantMember(value, QStringLiteral("summary")),
                               QStringLiteral("reconcile"));
        return;
    }
    if (!m_hooks)
        return;
    if (method == QLatin1String("sign:showNativePreview"))
        m_hooks->showNativePreview(variantMember(value, QStringLiteral("preparedNativePreview")));
    else if (method == QLatin1String("sign:openServerDocument"))
        m_hooks->openPreparedDefault(variantMember(value, QStringLiteral("preparedDefaultOpen")));
    else if (method == kRevealMethod)
        m_hooks->completeArtifactReveal(value);
}

void BridgeChannel::announceReconciliation(const QVariant& summary, const QString& importSource)
{
    emitDesktopEvent(QStringLiteral("vantro-sign-local-root-reconciled"),
                     OrderedObject{{QStringLiteral("summary"), summary}}.toVariant());
    const QVariantList imported = variantMember(summary, QStringLiteral("imported")).toList();
    if (imported.isEmpty())
        return;
    const QDir root(variantMember(summary, QStringLiteral("root")).toString());
    QStringList files;
    for (const QVariant& item : imported)
        files << root.filePath(variantMember(item, QStringLiteral("relativePath")).toString());
    emitDesktopEvent(QStringLiteral("vantro-sign-files-dropped"),
                     OrderedObject{{QStringLiteral("imported"), imported},
                                   {QStringLiteral("files"), files},
                                   {QStringLiteral("source"), importSource}}
                         .toVariant());
}

void BridgeChannel::postResult(const QString& id, const OrderedObject& result)
{
    if (!m_view) {
        qCDebug(lcBridge) << "no web view, answer dropped for" << id;
        return;
    }
    const OrderedObject answer{{QStringLiteral("vantroSignBridgeResult"), true},
                               {QStringLiteral("id"), id},
                               {QStringLiteral("result"), result.toVariant()}};
    m_view->postWebMessageAsJson(answer.toJson());
    Q_EMIT resultPosted(id);
}

void BridgeChannel::emitDesktopEvent(const QString& type, const QVariant& detail)
{
    if (!m_view || !m_api)
        return;
    const QString origin = m_api->webAppOrigin();
    if (origin.isEmpty())
        return;
    const bool hasDetail = detail.isValid() && !detail.isNull();
    const OrderedObject envelope{{QStringLiteral("vantroSignDesktopEvent"), true},
                                 {QStringLiteral("type"), type},
                                 {QStringLiteral("detail"), hasDetail ? detail : QVariantMap()}};
    const QString script =
        QStringLiteral("window.postMessage(%1, %2);")
            .arg(QString::fromUtf8(envelope.toJson()), QString::fromUtf8(toCompactJson(origin)));
    m_view->executeScript(script);
}

} // namespace vantro
