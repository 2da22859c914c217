#pragma once

#include <QString>

#include <stdexcept>

namespace vantro {

// The system's failure convention: an exception whose text is "CODE" or "CODE: detail".
// The bridge turns the text back into {code, message}; see splitErrorText.
class VantroError : public std::runtime_error
{
public:
    explicit VantroError(const QString& text);
    VantroError(const QString& code, const QString& detail);

    QString text() const;
    QString code() const;
};

// A failure with a message meant for the page: its text, which logs and stored rows keep, is
// the code alone; the bridge answers {code, message}.
class CodedError : public VantroError
{
public:
    CodedError(const QString& code, const QString& message);
    QString message() const { return m_message; }

private:
    QString m_message;
};

// The exception's text for a log line; a CodedError's page message is added to its code.
QString describeFailure(const std::exception& failure);

[[noreturn]] void fail(const QString& code, const QString& detail = {});

struct ErrorParts
{
    QString code;    // text before the first colon, trimmed; the fallback when that is empty
    QString message; // the whole text
};

// Splits an exception text into code and message; `fallbackCode` stands in for an empty code.
ErrorParts splitErrorText(const QString& text,
                          const QString& fallbackCode = QStringLiteral("VANTRO_SIGN_BRIDGE_ERROR"));

} // namespace vantro
