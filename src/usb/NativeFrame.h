#pragma once

#include <QByteArray>
#include <QString>

class QProcess;

namespace vantro {

// Frames on the host's pipes: a 4-byte little-endian length, then that many bytes of UTF-8 JSON.
constexpr quint32 kMaxNativeFrameBytes = 64u * 1024u * 1024u;

QByteArray encodeNativeFrame(const QByteArray& body);

enum class NativeFrameState { Incomplete, Complete, Oversized };

// Takes one whole frame off the front of `buffer` when it is there; `length` is the decoded
// length whenever four bytes were available. Both ends of the pipe read with it.
NativeFrameState takeNativeFrame(QByteArray& buffer, QByteArray* frame, quint32* length);

// Reads one frame from the process's standard output. `buffer` holds bytes already received
// and keeps whatever follows the frame for the next read. Returns the body, or an empty array
// with `errorOut` set: the helper's trimmed standard-error text when it wrote any, else a
// timeout message; a length above the limit fails at once. A zero-length frame also returns
// empty, with `errorOut` empty.
QByteArray readNativeFrame(QProcess& process, QByteArray& buffer, int timeoutMs, QString* errorOut);

} // namespace vantro
