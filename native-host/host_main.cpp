// vantro-sign-native-host: writes its handshake frame, reads one request frame from standard
// input, answers it with one frame on standard output, and exits.
#include "HostCommands.h"
#include "PinPrompt.h"
#include "usb/NativeFrame.h"

#include <QApplication>
#include <QJsonDocument>

#include <cstdio>

#ifdef Q_OS_WIN
#include <fcntl.h>
#include <io.h>
#endif

namespace {

// Longer than any person needs, shorter than the application waits for an authentication.
constexpr int kPinTimeoutMs = 100000;

void writeFrame(const QJsonObject& object)
{
    const QByteArray frame =
        vantro::encodeNativeFrame(QJsonDocument(object).toJson(QJsonDocument::Compact));
    std::fwrite(frame.constData(), 1, size_t(frame.size()), stdout);
    std::fflush(stdout);
}

// Reads exactly `count` more bytes into `buffer`; false when standard input ends first.
bool readExactly(QByteArray& buffer, size_t count)
{
    const qsizetype start = buffer.size();
    buffer.resize(start + qsizetype(count));
    return std::fread(buffer.data() + start, 1, count, stdin) == count;
}

// The request frame: its length first, then exactly that many bytes, since the application
// keeps the pipe open while it waits for the answer. Empty when input ends early or the length
// is beyond the limit.
QByteArray readFrame()
{
    QByteArray buffer;
    QByteArray frame;
    quint32 length = 0;
    if (!readExactly(buffer, 4) ||
        vantro::takeNativeFrame(buffer, &frame, &length) == vantro::NativeFrameState::Oversized)
        return {};
    if (!readExactly(buffer, length) ||
        vantro::takeNativeFrame(buffer, &frame, &length) != vantro::NativeFrameState::Complete)
        return {};
    return frame;
}

} // namespace

int main(int argc, char** argv)
{
#ifdef Q_OS_WIN
    _setmode(_fileno(stdin), _O_BINARY);
    _setmode(_fileno(stdout), _O_BINARY);
#endif
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Vantro Sign"));
    writeFrame(vantro::host::handshake());
    const QByteArray request = readFrame();
    const auto prompt = vantro::host::makePinPrompt(kPinTimeoutMs);
    const QJsonObject answer = vantro::host::answerRequest(request, *prompt);
    writeFrame(answer);
    return answer.contains(QLatin1String("error")) ? 1 : 0;
}
