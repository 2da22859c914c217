#pragma once

#include "app/OrderedJson.h"

#include <QObject>
#include <QSet>
#include <QString>
#include <QVariant>

#include <functional>
#include <memory>

namespace vantro {

class AppState;
class DesktopBridge;
class RuntimeBridge;
class SignApiClient;

// What the bridge needs from the browser host: post an answer, run a script in the page.
class BridgeWebView
{
public:
    virtual ~BridgeWebView() = default;
    virtual void postWebMessageAsJson(const QByteArray& json) = 0;
    virtual void executeScript(const QString& script) = 0;
};

// Window actions that finish an asynchronous call on the main thread (preview, default open,
// artifact reveal). Reconciliation's event is emitted by the channel itself.
class CompletionHooks
{
public:
    virtual ~CompletionHooks() = default;
    virtual void showNativePreview(const QVariant& prepared) = 0;
    virtual void openPreparedDefault(const QVariant& prepared) = 0;
    virtual void completeArtifactReveal(const QVariant& value) = 0;
};

// The private component set an asynchronous call builds and destroys on its worker thread.
struct WorkerComponents
{
    std::unique_ptr<AppState> state;
    std::unique_ptr<RuntimeBridge> runtime;
    std::unique_ptr<SignApiClient> api;
    std::unique_ptr<DesktopBridge> bridge;
    ~WorkerComponents();
};
using WorkerFactory = std::function<std::unique_ptr<WorkerComponents>()>;

// Builds the standard worker set: a fresh AppState on the same device.json, the saved-PIN
// state, a client and a bridge. `configure` may adjust the client (tests point it elsewhere).
WorkerFactory defaultWorkerFactory(const QString& deviceJsonPath,
                                   std::function<void(SignApiClient&)> configure = {});

// The web-view side of the protocol: parses page messages, runs calls synchronously or on the
// thread pool, applies completion hooks and posts answers; also pushes desktop events.
class BridgeChannel : public QObject
{
    Q_OBJECT
public:
    BridgeChannel(DesktopBridge* bridge, SignApiClient* api, WorkerFactory workers,
                  QObject* parent = nullptr);
    ~BridgeChannel() override;

    void attachWebView(BridgeWebView* view) { m_view = view; }
    void setCompletionHooks(CompletionHooks* hooks) { m_hooks = hooks; }

    void handleWebMessage(const QString& json, const QString& sourceUri);
    void postResult(const QString& id, const OrderedObject& result);
    void emitDesktopEvent(const QString& type, const QVariant& detail);
    // Tells the page that a reconciliation finished and, when it imported files, that they
    // arrived ("vantro-sign-files-dropped" with `source` = importSource: "watch" or "reconcile").
    void announceReconciliation(const QVariant& summary, const QString& importSource);

Q_SIGNALS:
    // Emitted after an answer was handed to the web view (tests and benchmarks wait on it).
    void resultPosted(const QString& id);

private:
    void runAsync(const QString& id, const QString& method, const QVariantList& args,
                  const QString& sourceUri);
    void applyCompletionHook(const QString& method, const OrderedObject& result);
    // Artifact reveals are keyed by the page's operation id; one id runs at most once at a time.
    bool registerRevealOperation(const QString& operationId);

    DesktopBridge* m_bridge = nullptr;
    SignApiClient* m_api = nullptr;
    WorkerFactory m_workers;
    BridgeWebView* m_view = nullptr;
    CompletionHooks* m_hooks = nullptr;
    QSet<QString> m_activeReveals;
};

} // namespace vantro
