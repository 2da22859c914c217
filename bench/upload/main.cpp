// upload_50mib_peak_rss: how much the uploading process's peak memory grows while it uploads a
// 50 MiB file to the loopback stand-in of the service, against the file's own size. A client
// that read the file whole would come out at 1 or more; a streamed one stays far below.
#include "BenchSupport.h"

#include "api/SignApiClient.h"
#include "app/AppState.h"
#include "app/FileHash.h"

#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

namespace {

constexpr qint64 kMiB = 1024 * 1024;
constexpr qint64 kFileSize = 50 * kMiB;
constexpr double kTarget = 0.3;

// A /proc/self/status field in KiB.
qint64 statusKiB(const char* field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        qFatal("cannot read /proc/self/status");
    const QRegularExpression line(QStringLiteral("^%1:\\s+(\\d+) kB$").arg(QLatin1String(field)),
                                  QRegularExpression::MultilineOption);
    const auto match = line.match(QString::fromLatin1(status.readAll()));
    if (!match.hasMatch())
        qFatal("no %s in /proc/self/status", field);
    return match.captured(1).toLongLong();
}

// From here on the peak counts from the present size (Linux resets it on "5").
void resetPeak()
{
    QFile clear(QStringLiteral("/proc/self/clear_refs"));
    if (!clear.open(QIODevice::WriteOnly) || clear.write("5") != 1)
        qWarning("cannot reset the peak; the baseline is the peak so far");
}

// The stand-in runs in a process of its own, so that its copy of the body is not counted.
quint16 startService(QProcess& service)
{
    service.setReadChannel(QProcess::StandardError);
    service.start(QStringLiteral(VANTRO_DEV_SERVICE_EXE), {QStringLiteral("--port"), "0"});
    const QRegularExpression ready(QStringLiteral("listening on http://127.0.0.1:(\\d+)"));
    QByteArray said;
    while (service.waitForReadyRead(10000)) {
        said += service.readAllStandardError();
        if (const auto match = ready.match(QString::fromUtf8(said)); match.hasMatch())
            return match.captured(1).toUShort();
    }
    qFatal("the service stand-in did not start: %s", said.constData());
}

void upload(vantro::SignApiClient& api, const QString& path)
{
    const QJsonObject answer =
        api.uploadFile(path, QStringLiteral("bench.bin"), vantro::sha256File(path), {}, 120000);
    if (!answer.value(QStringLiteral("ok")).toBool())
        qFatal("upload refused");
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("vantro.*.info=false\nvantro.*.debug=false"));
    QTemporaryDir dir;
    QProcess service;
    service.setProcessChannelMode(QProcess::SeparateChannels);
    const quint16 port = startService(service);

    vantro::AppState state(dir.filePath(QStringLiteral("device.json")));
    vantro::SignApiClient api(&state);
    api.setBaseUrl(QStringLiteral("http://127.0.0.1:%1").arg(port));
    // A small upload first: libraries, buffers and the connection are in place before measuring.
    upload(api, benchsupport::writeRandomFile(dir.filePath(QStringLiteral("warm.bin")), kMiB));
    const QString big =
        benchsupport::writeRandomFile(dir.filePath(QStringLiteral("big.bin")), kFileSize);
    (void)vantro::sha256File(big); // hashing is not what is measured; done before the reset

    resetPeak();
    const qint64 baselineKiB = statusKiB("VmHWM");
    upload(api, big);
    const double growthMiB = double(statusKiB("VmHWM") - baselineKiB) / 1024.0;

    service.kill();
    service.waitForFinished();
    return benchsupport::report(QStringLiteral("upload_50mib_peak_rss"), growthMiB,
                                double(kFileSize) / kMiB, kTarget, "MiB")
               ? 0
               : 1;
}
