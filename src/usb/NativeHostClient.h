#pragma once

#include <QJsonObject>
#include <QString>
#include <QVariantMap>

namespace vantro {

// The origin stamped into every host request: VANTRO_SIGN_HELPER_ORIGIN when set (trimmed,
// non-empty), else the account portal's origin. Read afresh for each request.
QString helperOrigin();

// The host request: {"command", "arguments"} with arguments["origin"] = helperOrigin(),
// replacing any origin of the caller's.
QJsonObject nativeHostRequest(const QString& command, const QVariantMap& arguments);

// One exchange with the host program at `hostPath`: start it, read its handshake frame, write
// the request frame, read the answer within `timeoutMs`, and kill it whatever happened, so no
// host outlives its request. Returns the host's answer object; every failure throws a
// CodedError ("VANTRO_USB_HELPER_…", or the host's own error code).
QJsonObject runNativeHostCommand(const QString& hostPath, const QString& command,
                                 const QVariantMap& arguments, int timeoutMs);

// The code of every "the helper program is not there or does not start" failure.
inline const QString kHelperUnavailable = QStringLiteral("VANTRO_USB_HELPER_UNAVAILABLE");

// How long the middleware diagnostics program may run.
inline constexpr int kMiddlewareDiagnoseTimeoutMs = 15000;

// Runs the middleware program with "--diagnose" and returns what it printed when that is a
// JSON object, else an empty object. Throws "VANTRO_USB_HELPER_TIMEOUT_diagnose" when it has
// not finished within `timeoutMs` (it is killed) or could not start.
QJsonObject runMiddlewareDiagnose(const QString& cliPath, int timeoutMs);

} // namespace vantro
