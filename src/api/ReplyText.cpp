#include "api/ReplyText.h"

#include "app/Errors.h"

#include <QJsonDocument>
#include <QRegularExpression>
#include <QUrl>

namespace vantro::replytext {

namespace {

constexpr int kMaxExcerpt = 180;
constexpr int kMaxFileName = 180;

QString memberText(const QJsonObject& object, const char* key)
{
    return object.value(QLatin1String(key)).toString();
}

} // namespace

bool isSuccessStatus(int status)
{
    return status >= 200 && status <= 299;
}

QJsonObject expectObject(const QByteArray& body, const QString& failedCode)
{
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        fail(failedCode,
             QStringLiteral("backend returned non-JSON response: ") + bodyExcerpt(body));
    return document.object();
}

QString bodyExcerpt(const QByteArray& body)
{
    static const QRegularExpression whiteSpace(QStringLiteral("\\s+"));
    return QString::fromUtf8(body)
        .replace(whiteSpace, QStringLiteral(" "))
        .trimmed()
        .left(kMaxExcerpt);
}

QString backendErrorMessage(const QJsonObject& reply, const QString& fallback)
{
    const QJsonObject error = reply.value(QLatin1String("error")).toObject();
    const QString code = memberText(error, "code");
    const QString message = memberText(error, "message");
    if (code.isEmpty())
        return fallback;
    return message.isEmpty() ? code : code + QStringLiteral(": ") + message;
}

QString fileNameFromContentDisposition(const QString& header)
{
    if (header.isEmpty())
        return {};
    static const QRegularExpression extended(QStringLiteral("filename\\*\\s*=\\s*UTF-8''([^;]+)"),
                                             QRegularExpression::CaseInsensitiveOption);
    static const QRegularExpression plain(QStringLiteral("filename\\s*=\\s*(\"?)([^\";]+)\\1"),
                                          QRegularExpression::CaseInsensitiveOption);
    if (const auto match = extended.match(header); match.hasMatch()) {
        const QString encoded = match.captured(1).trimmed().remove(QLatin1Char('"'));
        return sanitizeFileName(QUrl::fromPercentEncoding(encoded.toUtf8()));
    }
    if (const auto match = plain.match(header); match.hasMatch())
        return sanitizeFileName(match.captured(2));
    return {};
}

QString sanitizeFileName(const QString& name)
{
    static const QRegularExpression separators(QStringLiteral("[\\\\/]"));
    static const QRegularExpression queryOrFragment(QStringLiteral("[?#]"));
    static const QRegularExpression reserved(QStringLiteral("[<>:\"/\\\\|?*\\x00-\\x1F]"));
    const QStringList pieces = name.split(separators, Qt::SkipEmptyParts);
    QString out = pieces.isEmpty() ? QString::fromLatin1(kDefaultFileName) : pieces.last();
    const int cut = out.indexOf(queryOrFragment);
    if (cut >= 0)
        out.truncate(cut);
    out.replace(reserved, QStringLiteral("_"));
    while (out.endsWith(QLatin1Char('.')) || out.endsWith(QLatin1Char(' ')))
        out.chop(1);
    out.truncate(kMaxFileName);
    return out.isEmpty() ? QString::fromLatin1(kDefaultFileName) : out;
}

} // namespace vantro::replytext
