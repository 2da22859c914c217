#include "bridge/DesktopBridge.h"

#include "api/SignApiClient.h"
#include "app/AppState.h"
#include "app/Errors.h"
#include "bridge/BridgeDispatch.h"
#include "bridge/BridgeLogging.h"
#include "store/LocalStore.h"
#include "usb/HelperRegistry.h"
#include "usb/RuntimeBridge.h"
#include "vantro_config.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDeadlineTimer>
#include <QFileInfo>
#include <QPair>
#include <QSet>
#include <QThread>
#include <QUrl>

#include <atomic>
#include <exception>

namespace vantro {

namespace {

constexpr qint64 kHelperCacheMs = 1000;
constexpr char kBusyMessage[] = "Vantro Sign is still processing the previous desktop request.";

// One flag for the whole process: worker bridges and the main bridge share it, so a card
// signature and a document import never overlap whichever thread runs them.
std::atomic<bool> g_exclusiveRunning{false};

// Holds the exclusive flag for one call and clears it however the call ends.
class ExclusiveSlot
{
public:
    ExclusiveSlot() = default;
    ExclusiveSlot(const ExclusiveSlot&) = delete;
    ExclusiveSlot& operator=(const ExclusiveSlot&) = delete;
    ~ExclusiveSlot()
    {
        if (m_held)
            g_exclusiveRunning.store(false, std::memory_order_release);
    }

    bool acquire()
    {
        bool expected = false;
        m_held =
            g_exclusiveRunning.compare_exchange_strong(expected, true, std::memory_order_acq_rel);
        return m_held;
    }

private:
    bool m_held = false;
};

const QSet<QString>& asynchronousMethods()
{
    static const QSet<QString> methods{
        QStringLiteral("usb:diagnose"),
        QStringLiteral("usb:getSigningCertificate"),
        QStringLiteral("usb:sign"),
        QStringLiteral("usb:signBatch"),
        QStringLiteral("usb:authenticate"),
        QStringLiteral("sign:reconcileLocalRoot"),
        QStringLiteral("sign:uploadLocalDocument"),
        QStringLiteral("sign:runPdfTool"),
        QStringLiteral("sign:createExternalInvitation"),
        QStringLiteral("sign:cancelExternalInvitation"),
        QStringLiteral("sign:remindExternalInvitation"),
        QStringLiteral("sign:listExternalInvitations"),
        QStringLiteral("sign:queueUpload"),
        QStringLiteral("sign:mirrorArtifact"),
        QStringLiteral("sign:ensureLocalArtifactAndReveal"),
        QStringLiteral("sign:retryMirrorQueue"),
        QStringLiteral("sign:getLocalArtifactStatus"),
        QStringLiteral("sign:openServerDocument"),
        QStringLiteral("sign:renderServerDocumentPreview"),
        QStringLiteral("sign:warmServerDocumentPreview"),
        QStringLiteral("sign:showNativePreview"),
        QStringLiteral("sign:deleteLocalDocument"),
        QStringLiteral("sign:extractAdocFiles"),
        QStringLiteral("sign:hashFile"),
    };
    return methods;
}

// The card methods report a busy flag in the card vocabulary, the page translates it.
const QSet<QString>& cardSigningMethods()
{
    static const QSet<QString> methods{
        QStringLiteral("usb:getSigningCertificate"),
        QStringLiteral("usb:sign"),
        QStringLiteral("usb:signBatch"),
        QStringLiteral("usb:authenticate"),
    };
    return methods;
}

const QSet<QString>& exclusiveMethods()
{
    static const QSet<QString> methods =
        QSet<QString>{
            QStringLiteral("sign:pickFiles"),
            QStringLiteral("sign:reconcileLocalRoot"),
            QStringLiteral("sign:deleteLocalDocument"),
            QStringLiteral("sign:uploadLocalDocument"),
            QStringLiteral("sign:runPdfTool"),
            QStringLiteral("sign:createExternalInvitation"),
            QStringLiteral("sign:cancelExternalInvitation"),
            QStringLiteral("sign:remindExternalInvitation"),
            QStringLiteral("sign:queueUpload"),
            QStringLiteral("sign:ensureLocalArtifactAndReveal"),
            QStringLiteral("sign:retryMirrorQueue"),
            QStringLiteral("sign:removeLocalArtifact"),
            QStringLiteral("sign:removeLocalDocumentArtifacts"),
            QStringLiteral("sign:extractAdocFiles"),
        }
            .unite(cardSigningMethods());
    return methods;
}

OrderedObject busyError(const QString& method)
{
    const QString code = cardSigningMethods().contains(method)
                             ? QStringLiteral("VANTRO_USB_BRIDGE_BUSY")
                             : QStringLiteral("VANTRO_SIGN_BRIDGE_BUSY");
    return DesktopBridge::error(code, QString::fromLatin1(kBusyMessage));
}

// The mirror counts of the helper-runtime object. A status query must still answer when the
// database cannot be read, so a failure reads as zero counts.
QPair<int, int> mirrorCountsOf(LocalStore* store)
{
    try {
        const QJsonObject counts = store->mirrorCounts();
        return {counts.value(QStringLiteral("pending")).toInt(),
                counts.value(QStringLiteral("failed")).toInt()};
    } catch (const std::exception& failure) {
        qCWarning(lcBridge) << "mirror counts unavailable:" << failure.what();
        return {0, 0};
    }
}

int savedPinCountOf(RuntimeBridge* runtime)
{
    if (!runtime)
        return 0;
    runtime->refresh();
    return runtime->savedPinCount();
}

} // namespace

DesktopBridge::DesktopBridge(AppState* state, RuntimeBridge* runtime, SignApiClient* api,
                             QObject* parent)
    : QObject(parent)
    , m_state(state)
    , m_runtime(runtime)
    , m_api(api)
    , m_store(new LocalStore(state, this))
    , m_helpers(std::make_shared<HelperRegistry>(QCoreApplication::applicationDirPath()))
{
}

DesktopBridge::~DesktopBridge() = default;

OrderedObject DesktopBridge::handle(const QString& method, const QVariantList& args,
                                    const QString& sourceUri)
{
    return guarded(method, [&] {
        if (!m_api || !m_api->isAllowedOrigin(QUrl(sourceUri, QUrl::TolerantMode))) {
            qCInfo(lcBridge).noquote() << "rejected" << method << "from" << sourceUri;
            return error(QStringLiteral("ERR_VANTRO_ORIGIN_FORBIDDEN"),
                         QStringLiteral("Vantro Sign bridge rejected this origin."));
        }
        ExclusiveSlot slot;
        if (isExclusive(method) && !slot.acquire()) {
            qCInfo(lcBridge).noquote() << "busy, refused" << method;
            return busyError(method);
        }
        return route(method, args);
    });
}

OrderedObject DesktopBridge::ok(const QVariant& value)
{
    return OrderedObject{{QStringLiteral("ok"), true}, {QStringLiteral("value"), value}};
}

OrderedObject DesktopBridge::error(const QString& code, const QString& message)
{
    const OrderedObject detail{{QStringLiteral("code"), code},
                               {QStringLiteral("message"), message}};
    return OrderedObject{{QStringLiteral("ok"), false},
                         {QStringLiteral("error"), detail.toVariant()}};
}

bool DesktopBridge::runExclusive(const std::function<void()>& work)
{
    ExclusiveSlot slot;
    if (!slot.acquire())
        return false;
    work();
    return true;
}

void DesktopBridge::runExclusiveWhenFree(const std::function<void()>& work, int timeoutMs)
{
    constexpr unsigned long kPollMs = 50;
    const QDeadlineTimer deadline(timeoutMs);
    while (!runExclusive(work)) {
        if (deadline.hasExpired())
            fail(QStringLiteral("VANTRO_SIGN_BRIDGE_BUSY"), QString::fromLatin1(kBusyMessage));
        QThread::msleep(kPollMs);
    }
}

bool DesktopBridge::isAsynchronous(const QString& method)
{
    return asynchronousMethods().contains(method);
}

bool DesktopBridge::isExclusive(const QString& method)
{
    return exclusiveMethods().contains(method);
}

QString DesktopBridge::locateHelperExecutable(const QString& fileName)
{
    return m_helpers->locate(fileName);
}

void DesktopBridge::useHelperRegistry(std::shared_ptr<HelperRegistry> registry)
{
    if (registry)
        m_helpers = std::move(registry);
}

OrderedObject DesktopBridge::helperRuntime()
{
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    OrderedObject status = m_helpers->cachedStatus(now, kHelperCacheMs);
    if (!status.isEmpty())
        return status;
    // Probing the file system and the database runs unlocked; concurrent builders just race
    // to store equivalent objects.
    status = buildHelperRuntime();
    m_helpers->storeStatus(status, now);
    return status;
}

OrderedObject DesktopBridge::buildHelperRuntime()
{
    const QString host = locateHelperExecutable(nativeHostFileName());
    const QPair<int, int> mirror = mirrorCountsOf(m_store);
    const int savedPins = savedPinCountOf(m_runtime);
    return OrderedObject{
        {QStringLiteral("helperAvailable"), !host.isEmpty()},
        {QStringLiteral("helperBackgroundRunning"), true},
        {QStringLiteral("helperRuntime"), QStringLiteral("next")},
        {QStringLiteral("helperRuntimeVersion"), QString::fromLatin1(config::kApplicationVersion)},
        {QStringLiteral("helperRuntimePath"),
         host.isEmpty() ? QString() : QFileInfo(host).absolutePath()},
        // The host program signs a batch in one session itself.
        {QStringLiteral("usbSignBatchNative"), true},
        {QStringLiteral("storedPinAvailable"), savedPins > 0},
        {QStringLiteral("savedPinCount"), savedPins},
        {QStringLiteral("pendingMirrorCount"), mirror.first},
        {QStringLiteral("failedMirrorCount"), mirror.second},
    };
}

OrderedObject DesktopBridge::guarded(const QString& method,
                                     const std::function<OrderedObject()>& run)
{
    try {
        return run();
    } catch (const CodedError& failure) {
        qCWarning(lcBridge).noquote() << method << "failed:" << describeFailure(failure);
        return error(failure.code(), failure.message());
    } catch (const std::exception& failure) {
        const ErrorParts parts = splitErrorText(QString::fromUtf8(failure.what()));
        qCWarning(lcBridge).noquote() << method << "failed:" << parts.message;
        return error(parts.code, parts.message);
    } catch (...) {
        qCWarning(lcBridge).noquote() << method << "failed with an unknown exception";
        return error(QStringLiteral("VANTRO_SIGN_BRIDGE_ERROR"),
                     QStringLiteral("Unexpected failure in %1.").arg(method));
    }
}

OrderedObject DesktopBridge::route(const QString& method, const QVariantList& args)
{
    if (method.startsWith(QLatin1String("sign:")))
        return dispatchMethod(signMethodTable(), *this, method, args);
    if (method.startsWith(QLatin1String("usb:")))
        return dispatchMethod(usbMethodTable(), *this, method, args);
    return error(QStringLiteral("VANTRO_SIGN_BRIDGE_METHOD_UNKNOWN"), method);
}

} // namespace vantro
