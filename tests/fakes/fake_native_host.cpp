// A stand-in for the card host and the middleware program, speaking the real framing over its
// standard pipes. Each copy reads its behaviour from "<argv0>.json" beside it, records the
// request it received in "<argv0>.request" and its process id in "<argv0>.pid", so a test can
// steer one exchange and check what went over the wire and that the process is gone.
//
// Script keys (all optional):
//   handshake      "frame" (default), "empty" (zero-length frame), "none", or "oversized"
//   handshakeBytes size of the handshake body (default 2: "hi", not JSON on purpose)
//   stderrBeforeHandshake  text written to standard error, then exit without a frame
//   gluedAnswer    send {"glued":true} in the same write as the handshake
//   stderrAfterRequest     text written to standard error after the request, then exit
//   hang           never answer the request
//   delayMs        wait before answering
//   pieces         split the answer frame into this many writes, 20 ms apart
//   answer         the answer body, verbatim (default: {"echo": <request>})
//   answerBytes    pad the answer to exactly this many bytes (a JSON object)
//   answerLength   the length field to send instead of the real one (no body follows)
//   diagnose       with "--diagnose": the text to print; diagnoseHang: never finish
#include <QByteArray>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtEndian>
#include <QThread>

#include <cstdio>
#include <unistd.h>

namespace {

QJsonObject g_script;

void writeAll(int fd, const QByteArray& bytes)
{
    qsizetype done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.constData() + done, size_t(bytes.size() - done));
        if (n <= 0)
            ::_exit(3);
        done += n;
    }
}

QByteArray readExactly(qsizetype size)
{
    QByteArray bytes(size, '\0');
    qsizetype done = 0;
    while (done < size) {
        const ssize_t n = ::read(0, bytes.data() + done, size_t(size - done));
        if (n <= 0)
            ::_exit(4);
        done += n;
    }
    return bytes;
}

QByteArray lengthField(quint32 length)
{
    QByteArray field(4, '\0');
    qToLittleEndian<quint32>(length, field.data());
    return field;
}

QByteArray frame(const QByteArray& body)
{
    return lengthField(quint32(body.size())) + body;
}

QString text(const char* key)
{
    return g_script.value(QLatin1String(key)).toString();
}

int number(const char* key)
{
    return g_script.value(QLatin1String(key)).toInt();
}

QByteArray handshake()
{
    const QString kind = text("handshake");
    if (kind == QLatin1String("none"))
        return {};
    if (kind == QLatin1String("empty"))
        return lengthField(0);
    if (kind == QLatin1String("oversized"))
        return lengthField(64u * 1024u * 1024u + 1u);
    const int size = number("handshakeBytes");
    return frame(size > 0 ? QByteArray(size, 'h') : QByteArray("hi"));
}

QByteArray answerFor(const QByteArray& request)
{
    QByteArray body = g_script.contains(QLatin1String("answer"))
                          ? text("answer").toUtf8()
                          : QByteArray("{\"echo\":") + request + "}";
    const int padded = number("answerBytes");
    if (padded > 0) {
        const QByteArray open("{\"pad\":\"");
        const QByteArray close("\"}");
        body = open + QByteArray(padded - open.size() - close.size(), 'p') + close;
    }
    if (g_script.contains(QLatin1String("answerLength")))
        return lengthField(quint32(g_script.value(QLatin1String("answerLength")).toDouble()));
    return frame(body);
}

void sendInPieces(const QByteArray& bytes)
{
    const int pieces = qMax(1, number("pieces"));
    const qsizetype step = (bytes.size() + pieces - 1) / pieces;
    for (qsizetype at = 0; at < bytes.size(); at += step) {
        writeAll(1, bytes.mid(at, step));
        if (pieces > 1)
            QThread::msleep(20);
    }
}

[[noreturn]] void waitToBeKilled()
{
    for (;;)
        QThread::sleep(60);
}

int diagnose()
{
    if (g_script.value(QLatin1String("diagnoseHang")).toBool())
        waitToBeKilled();
    writeAll(1, text("diagnose").toUtf8());
    return 0;
}

int serve(const QString& self)
{
    if (g_script.contains(QLatin1String("stderrBeforeHandshake"))) {
        writeAll(2, text("stderrBeforeHandshake").toUtf8());
        return 1;
    }
    const bool glued = g_script.value(QLatin1String("gluedAnswer")).toBool();
    writeAll(1, glued ? handshake() + frame("{\"glued\":true}") : handshake());
    const quint32 length = qFromLittleEndian<quint32>(readExactly(4).constData());
    const QByteArray request = readExactly(length);
    QFile record(self + QStringLiteral(".request"));
    if (record.open(QIODevice::WriteOnly))
        record.write(request);
    record.close();
    if (g_script.contains(QLatin1String("stderrAfterRequest"))) {
        writeAll(2, text("stderrAfterRequest").toUtf8());
        return 1;
    }
    if (g_script.value(QLatin1String("hang")).toBool())
        waitToBeKilled();
    QThread::msleep(ulong(number("delayMs")));
    if (!glued)
        sendInPieces(answerFor(request));
    // Stay until killed, as the real host does while it waits for the next command.
    waitToBeKilled();
}

} // namespace

int main(int argc, char** argv)
{
    const QString self = QString::fromLocal8Bit(argv[0]);
    QFile script(self + QStringLiteral(".json"));
    if (script.open(QIODevice::ReadOnly))
        g_script = QJsonDocument::fromJson(script.readAll()).object();
    QFile pid(self + QStringLiteral(".pid"));
    if (pid.open(QIODevice::WriteOnly))
        pid.write(QByteArray::number(qint64(::getpid())));
    pid.close();
    if (argc > 1 && QByteArray(argv[1]) == "--diagnose")
        return diagnose();
    return serve(self);
}
