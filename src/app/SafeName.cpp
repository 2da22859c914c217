#include "app/SafeName.h"

#include <QRegularExpression>

namespace vantro {

QString windowsSafeName(const QString& name, int maxLength)
{
    static const QRegularExpression forbidden(QStringLiteral(R"([<>:"/\\|?*\x00-\x1F])"));
    QString clean = name.trimmed();
    clean.replace(forbidden, QStringLiteral("_"));
    while (clean.endsWith(QLatin1Char('.')) || clean.endsWith(QLatin1Char(' ')))
        clean.chop(1);
    if (clean.size() > maxLength) {
        clean.truncate(maxLength);
        // A cut inside a surrogate pair would leave a name no file system accepts.
        if (clean.back().isHighSurrogate())
            clean.chop(1);
    }
    return clean;
}

} // namespace vantro
