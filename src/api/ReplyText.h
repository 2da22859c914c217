#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

// Pure rules for what the service answers: success, error texts built from a reply, and the
// file name a download announces. No network, no state.
namespace vantro::replytext {

inline constexpr char kDefaultFileName[] = "vantro-sign-document";

bool isSuccessStatus(int status);

// The body parsed as a JSON object; anything else throws
// "<failedCode>: backend returned non-JSON response: <excerpt>".
QJsonObject expectObject(const QByteArray& body, const QString& failedCode);

// The body as UTF-8 with every run of white space collapsed to one blank, trimmed and cut to its
// first 180 characters, for error texts that quote a reply.
QString bodyExcerpt(const QByteArray& body);

// "code: message" from the reply's "error" object, the code alone when there is no message, and
// `fallback` when there is no code (a bare message says too little to act on).
QString backendErrorMessage(const QJsonObject& reply, const QString& fallback);

// The file name of a "Content-Disposition" header: the extended UTF-8 form wins over the plain
// one; "" when the header names none.
QString fileNameFromContentDisposition(const QString& header);

// A name safe to create on any desktop file system: the last path piece, no query or fragment,
// no reserved characters, no trailing dots or blanks, at most 180 characters.
QString sanitizeFileName(const QString& name);

} // namespace vantro::replytext
