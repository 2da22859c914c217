#include "app/Errors.h"

namespace vantro {

VantroError::VantroError(const QString& text)
    : std::runtime_error(text.toStdString())
{
}

VantroError::VantroError(const QString& code, const QString& detail)
    : VantroError(detail.isEmpty() ? code : code + QStringLiteral(": ") + detail)
{
}

QString VantroError::text() const
{
    return QString::fromStdString(what());
}

QString VantroError::code() const
{
    return splitErrorText(text()).code;
}

CodedError::CodedError(const QString& code, const QString& message)
    : VantroError(code)
    , m_message(message)
{
}

QString describeFailure(const std::exception& failure)
{
    const QString text = QString::fromUtf8(failure.what());
    const auto* coded = dynamic_cast<const CodedError*>(&failure);
    return coded ? text + QStringLiteral(" (") + coded->message() + QLatin1Char(')') : text;
}

void fail(const QString& code, const QString& detail)
{
    throw VantroError(code, detail);
}

ErrorParts splitErrorText(const QString& text, const QString& fallbackCode)
{
    const int colon = text.indexOf(QLatin1Char(':'));
    QString code = (colon < 0 ? text : text.left(colon)).trimmed();
    if (code.isEmpty())
        code = fallbackCode;
    return {code, text};
}

} // namespace vantro
