#include "Multipart.h"

#include <QRegularExpression>

namespace vantro::dev {

namespace {

QByteArray boundaryOf(const QByteArray& contentType)
{
    static const QRegularExpression pattern(QStringLiteral("boundary=\"?([^\";]+)"));
    const auto match = pattern.match(QString::fromLatin1(contentType));
    return match.hasMatch() ? match.captured(1).toLatin1() : QByteArray();
}

FormPart partOf(const QByteArray& raw)
{
    static const QRegularExpression namePattern(QStringLiteral("(?:^|;)\\s*name=\"([^\"]*)\""));
    const qsizetype split = raw.indexOf("\r\n\r\n");
    FormPart part;
    for (const QByteArray& line : raw.left(split).split('\n'))
        if (line.toLower().startsWith("content-disposition:"))
            part.disposition = line.mid(line.indexOf(':') + 1).trimmed();
    const auto name = namePattern.match(QString::fromUtf8(part.disposition));
    part.name = name.hasMatch() ? name.captured(1).toUtf8() : QByteArray();
    part.body = split < 0 ? QByteArray() : raw.mid(split + 4);
    return part;
}

} // namespace

QList<FormPart> parseFormData(const QByteArray& contentType, const QByteArray& body)
{
    const QByteArray boundary = boundaryOf(contentType);
    if (boundary.isEmpty())
        return {};
    const QByteArray delimiter = "--" + boundary;
    QList<FormPart> parts;
    qsizetype at = body.indexOf(delimiter);
    while (at >= 0) {
        const qsizetype start = at + delimiter.size();
        if (body.mid(start, 2) == "--")
            break; // the closing delimiter
        const qsizetype next = body.indexOf("\r\n" + delimiter, start + 2);
        if (next < 0)
            break;
        parts << partOf(body.mid(start + 2, next - start - 2)); // past the delimiter's CRLF
        at = next + 2;
    }
    return parts;
}

} // namespace vantro::dev
