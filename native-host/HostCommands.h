#pragma once

#include <QByteArray>
#include <QJsonObject>

namespace vantro::host {

class PinPrompt;

// The first frame the host writes.
QJsonObject handshake();

// Answers one request frame: the command's result, or {"error": {"code", "message"}}. Never
// throws; every failure becomes an error answer.
QJsonObject answerRequest(const QByteArray& frame, PinPrompt& prompt);

} // namespace vantro::host
