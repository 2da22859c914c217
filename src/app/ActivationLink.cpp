#include "app/ActivationLink.h"

#include <QRegularExpression>

namespace vantro {

namespace {

const QLatin1String kScheme("vantrosign:");
const QLatin1String kMask("***");

// Link actions worth seeing in a log; anything else in that position may be a code.
bool isKnownAction(const QString& word)
{
    static const QStringList actions{QStringLiteral("activate"), QStringLiteral("open"),
                                     QStringLiteral("show")};
    return actions.contains(word, Qt::CaseInsensitive);
}

bool isPlainKey(const QString& key)
{
    static const QRegularExpression plain(QStringLiteral("^[A-Za-z0-9_.-]{1,64}$"));
    return plain.match(key).hasMatch();
}

QString redactQuery(const QString& query)
{
    QStringList items;
    for (const QString& item : query.split(QLatin1Char('&'), Qt::SkipEmptyParts)) {
        const qsizetype equals = item.indexOf(QLatin1Char('='));
        const QString key = item.left(equals);
        items << (equals > 0 && isPlainKey(key) ? key + QLatin1Char('=') + kMask : QString(kMask));
    }
    return items.join(QLatin1Char('&'));
}

// `hierarchy` is the part between the scheme and the query: "//action/rest" or "action/rest".
QString redactHierarchy(const QString& hierarchy)
{
    const bool hasAuthority = hierarchy.startsWith(QLatin1String("//"));
    const QString body = hasAuthority ? hierarchy.mid(2) : hierarchy;
    const qsizetype slash = body.indexOf(QLatin1Char('/'));
    const QString action = body.left(slash);
    const QString rest = slash < 0 ? QString() : body.mid(slash + 1);

    QString out = hasAuthority ? QStringLiteral("//") : QString();
    if (!action.isEmpty())
        out += isKnownAction(action) ? action.toLower() : QString(kMask);
    if (slash >= 0)
        out += QLatin1Char('/') + (rest.isEmpty() ? QString() : QString(kMask));
    return out;
}

} // namespace

bool isActivationLink(const QString& text)
{
    return text.startsWith(kScheme, Qt::CaseInsensitive);
}

QString redactActivationLink(const QString& link)
{
    if (!isActivationLink(link))
        return link;
    QString rest = link.mid(kScheme.size());

    const qsizetype hash = rest.indexOf(QLatin1Char('#'));
    const bool hasFragment = hash >= 0;
    rest.truncate(hasFragment ? hash : rest.size());

    const qsizetype question = rest.indexOf(QLatin1Char('?'));
    const QString query = question < 0 ? QString() : rest.mid(question + 1);

    QString out = kScheme + redactHierarchy(rest.left(question));
    if (question >= 0)
        out += QLatin1Char('?') + redactQuery(query);
    if (hasFragment)
        out += QLatin1Char('#') + kMask;
    return out;
}

QString redactedArguments(const QStringList& arguments)
{
    QStringList parts;
    parts.reserve(arguments.size());
    for (const QString& argument : arguments)
        parts << redactActivationLink(argument);
    return parts.join(QLatin1Char(' '));
}

} // namespace vantro
