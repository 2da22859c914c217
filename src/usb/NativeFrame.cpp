#include "usb/NativeFrame.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QtEndian>

namespace vantro {

namespace {

constexpr int kWaitSliceMs = 100;

} // namespace

NativeFrameState takeNativeFrame(QByteArray& buffer, QByteArray* frame, quint32* length)
{
    if (buffer.size() < 4)
        return NativeFrameState::Incomplete;
    *length = qFromLittleEndian<quint32>(buffer.constData());
    if (*length > kMaxNativeFrameBytes)
        return NativeFrameState::Oversized;
    const qsizetype total = qsizetype(*length) + 4;
    if (buffer.size() < total)
        return NativeFrameState::Incomplete;
    *frame = buffer.mid(4, *length);
    buffer.remove(0, total);
    return NativeFrameState::Complete;
}

QByteArray encodeNativeFrame(const QByteArray& body)
{
    QByteArray frame(4, Qt::Uninitialized);
    qToLittleEndian<quint32>(quint32(body.size()), frame.data());
    return frame + body;
}

QByteArray readNativeFrame(QProcess& process, QByteArray& buffer, int timeoutMs, QString* errorOut)
{
    errorOut->clear();
    QByteArray errorText;
    QElapsedTimer clock;
    clock.start();
    const auto drain = [&] {
        buffer += process.readAllStandardOutput();
        errorText += process.readAllStandardError();
    };
    // A helper that wrote its frame and exited at once still delivers it: after the exit the
    // loop drains and looks for a frame once more before giving up.
    bool exited = false;
    for (;;) {
        drain();
        QByteArray frame;
        quint32 length = 0;
        switch (takeNativeFrame(buffer, &frame, &length)) {
        case NativeFrameState::Complete:
            return frame;
        case NativeFrameState::Oversized:
            *errorOut = QStringLiteral("Bad native-message frame length: %1").arg(length);
            return {};
        case NativeFrameState::Incomplete:
            break;
        }
        const qint64 left = timeoutMs - clock.elapsed();
        if (exited || left <= 0)
            break;
        if (!process.waitForReadyRead(int(qMin<qint64>(left, kWaitSliceMs))) &&
            process.state() == QProcess::NotRunning)
            exited = true;
    }
    errorText += process.readAllStandardError();
    const QString message = QString::fromUtf8(errorText).trimmed();
    *errorOut = message.isEmpty()
                    ? QStringLiteral("Native host did not return a frame before timeout.")
                    : message;
    return {};
}

} // namespace vantro
