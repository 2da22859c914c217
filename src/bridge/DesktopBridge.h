#pragma once

#include "app/OrderedJson.h"

#include <QObject>
#include <QString>
#include <QVariantList>

#include <functional>
#include <memory>

namespace vantro {

class AppState;
class SignApiClient;
class DesktopShell;
class LocalStore;
class RuntimeBridge;
class HelperRegistry;
class UpdateManager;

// Routes page calls ("sign:" and "usb:" methods) to the components that do the work and wraps
// their outcome as result objects: {ok: true, value} or {ok: false, error: {code, message}}.
class DesktopBridge : public QObject
{
    Q_OBJECT
public:
    // `runtime` (saved PINs) may be absent: the helper status then reports none saved.
    DesktopBridge(AppState* state, RuntimeBridge* runtime, SignApiClient* api,
                  QObject* parent = nullptr);
    ~DesktopBridge() override;

    // Origin check, exclusive rule and routing. Safe on any thread for a bridge built there.
    OrderedObject handle(const QString& method, const QVariantList& args, const QString& sourceUri);

    static OrderedObject ok(const QVariant& value = {});
    static OrderedObject error(const QString& code, const QString& message);

    // Runs `run`; a handler's failure, thrown as "CODE: message", becomes an error result.
    static OrderedObject guarded(const QString& method, const std::function<OrderedObject()>& run);

    // Runs `work` holding the process-wide exclusive flag, as an exclusive page call would; false,
    // without running it, while another exclusive call holds the flag. For work the window starts
    // by itself (the root watch, queue retries), which waits for its next turn instead.
    static bool runExclusive(const std::function<void()>& work);
    // Runs `work` holding the flag as soon as it is free, polling; throws the busy error when it
    // stays held for `timeoutMs`. For work that must not be dropped (files the user dropped).
    static void runExclusiveWhenFree(const std::function<void()>& work, int timeoutMs);

    static bool isAsynchronous(const QString& method);
    static bool isExclusive(const QString& method);

    // Dialogs and desktop actions (pickers, opening folders); absent in worker bridges.
    void setDesktopShell(DesktopShell* shell) { m_shell = shell; }
    DesktopShell* desktopShell() const { return m_shell; }

    // The ten-key helper-runtime object, cached for 1000 ms.
    OrderedObject helperRuntime();
    // Absolute path of a helper program beside the application, or empty; cached, misses
    // included, for as long as the registry lives.
    QString locateHelperExecutable(const QString& fileName);

    // Helper locations and the status cache. A bridge built for a worker call takes the
    // window bridge's registry, so both caches outlive the call.
    std::shared_ptr<HelperRegistry> helperRegistry() const { return m_helpers; }
    void useHelperRegistry(std::shared_ptr<HelperRegistry> registry);

    // Handed over by the window after construction; absent in worker bridges.
    void setUpdateManager(UpdateManager* updates) { m_updates = updates; }
    UpdateManager* updateManager() const { return m_updates; }

    AppState* state() const { return m_state; }
    RuntimeBridge* runtime() const { return m_runtime; }
    SignApiClient* api() const { return m_api; }
    LocalStore* localStore() const { return m_store; }

private:
    OrderedObject buildHelperRuntime();
    OrderedObject route(const QString& method, const QVariantList& args);

    AppState* m_state = nullptr;
    RuntimeBridge* m_runtime = nullptr;
    SignApiClient* m_api = nullptr;
    UpdateManager* m_updates = nullptr;
    DesktopShell* m_shell = nullptr;
    LocalStore* m_store = nullptr;
    std::shared_ptr<HelperRegistry> m_helpers;
};

} // namespace vantro
