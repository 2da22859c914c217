#include "usb/NativeHostClient.h"

#include "app/Errors.h"
#include "usb/Logging.h"
#include "usb/NativeFrame.h"
#include "vantro_config.h"

#include <QDeadlineTimer>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QProcess>

namespace vantro {

namespace {

constexpr int kStartTimeoutMs = 5000;
constexpr int kHandshakeTimeoutMs = 10000;
constexpr int kFlushTimeoutMs = 5000;
constexpr int kReapTimeoutMs = 5000;

// Kills the child and reaps it when the exchange ends, however it ends.
class ProcessGuard
{
public:
    explicit ProcessGuard(QProcess& process)
        : m_process(process)
    {
    }
    ProcessGuard(const ProcessGuard&) = delete;
    ProcessGuard& operator=(const ProcessGuard&) = delete;
    ~ProcessGuard() { stop(); }

    void stop()
    {
        if (m_process.state() == QProcess::NotRunning)
            return;
        m_process.kill();
        m_process.waitForFinished(kReapTimeoutMs);
    }

private:
    QProcess& m_process;
};

// The whole frame must go into the pipe at once and drain within the flush limit.
bool writeFrame(QProcess& process, const QByteArray& frame)
{
    if (process.write(frame) != frame.size())
        return false;
    const QDeadlineTimer deadline(kFlushTimeoutMs);
    while (process.bytesToWrite() > 0) {
        if (deadline.hasExpired() || !process.waitForBytesWritten(int(deadline.remainingTime())))
            return false;
    }
    return true;
}

QJsonObject parseAnswer(const QByteArray& body)
{
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(body, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        throw CodedError(QStringLiteral("VANTRO_USB_HELPER_BAD_RESPONSE"),
                         parseError.errorString());
    if (!document.isObject())
        throw CodedError(QStringLiteral("VANTRO_USB_HELPER_BAD_RESPONSE"),
                         QStringLiteral("The native host's answer is not a JSON object."));
    return document.object();
}

// An answer carrying "error" is the host's own failure; its code passes through unchanged.
void throwHostError(const QJsonObject& answer)
{
    const QJsonObject error = answer.value(QStringLiteral("error")).toObject();
    QString code = error.value(QStringLiteral("code")).toString();
    QString message = error.value(QStringLiteral("message")).toString();
    if (code.isEmpty())
        code = QStringLiteral("VANTRO_USB_HELPER_ERROR");
    if (message.isEmpty())
        message = QStringLiteral("Vantro Sign native host returned an error.");
    throw CodedError(code, message);
}

void startHelper(QProcess& process, const QString& path, const QStringList& arguments)
{
    process.setProcessChannelMode(QProcess::SeparateChannels);
    process.start(path, arguments, QIODevice::ReadWrite);
    if (!process.waitForStarted(kStartTimeoutMs))
        throw CodedError(kHelperUnavailable, process.errorString());
}

} // namespace

QString helperOrigin()
{
    const QString configured = qEnvironmentVariable("VANTRO_SIGN_HELPER_ORIGIN").trimmed();
    return configured.isEmpty() ? QString::fromLatin1(config::kPortalOrigin) : configured;
}

QJsonObject nativeHostRequest(const QString& command, const QVariantMap& arguments)
{
    QJsonObject stamped = QJsonObject::fromVariantMap(arguments);
    stamped.insert(QStringLiteral("origin"), helperOrigin());
    return QJsonObject{{QStringLiteral("command"), command},
                       {QStringLiteral("arguments"), stamped}};
}

QJsonObject runNativeHostCommand(const QString& hostPath, const QString& command,
                                 const QVariantMap& arguments, int timeoutMs)
{
    QProcess process;
    startHelper(process, hostPath, {});
    ProcessGuard guard(process);
    QByteArray received;
    QString readError;

    if (readNativeFrame(process, received, kHandshakeTimeoutMs, &readError).isEmpty())
        throw CodedError(QStringLiteral("VANTRO_USB_HELPER_INVALID_HANDSHAKE"), readError);

    const QByteArray request =
        QJsonDocument(nativeHostRequest(command, arguments)).toJson(QJsonDocument::Compact);
    if (!writeFrame(process, encodeNativeFrame(request)))
        throw CodedError(QStringLiteral("VANTRO_USB_HELPER_WRITE_FAILED"), process.errorString());

    const QByteArray body = readNativeFrame(process, received, timeoutMs, &readError);
    guard.stop();
    if (body.isEmpty())
        throw CodedError(QStringLiteral("VANTRO_USB_HELPER_TIMEOUT_") + command, readError);

    const QJsonObject answer = parseAnswer(body);
    if (answer.contains(QStringLiteral("error")))
        throwHostError(answer);
    qCInfo(lcUsb).noquote() << "native host answered" << command;
    return answer;
}

QJsonObject runMiddlewareDiagnose(const QString& cliPath, int timeoutMs)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::SeparateChannels);
    process.start(cliPath, {QStringLiteral("--diagnose")}, QIODevice::ReadWrite);
    ProcessGuard guard(process);
    if (!process.waitForStarted(kStartTimeoutMs) || !process.waitForFinished(timeoutMs)) {
        qCWarning(lcUsb).noquote() << "middleware diagnostics gave up:" << process.errorString();
        throw CodedError(QStringLiteral("VANTRO_USB_HELPER_TIMEOUT_diagnose"),
                         QStringLiteral("Diagnostics timed out."));
    }
    const QJsonDocument document = QJsonDocument::fromJson(process.readAllStandardOutput());
    return document.isObject() ? document.object() : QJsonObject();
}

} // namespace vantro
