#include "usb/pcsc/CardProfiles.h"

#include <QFile>
#include <QHash>
#include <QMutex>
#include <QMutexLocker>
#include <QRegularExpression>
#include <QTextStream>

namespace vantro::pcsc {

namespace {

constexpr char kPkcs15Aid[] = "a000000063504b43532d3135";

struct AtrListEntry
{
    QString pattern; // regular expression over "3B 9D ..." text
    QStringList descriptions;
};

// Entries are an ATR pattern line followed by tab-indented description lines.
QList<AtrListEntry> parseAtrList(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return {};
    QList<AtrListEntry> entries;
    QTextStream in(&file);
    while (!in.atEnd()) {
        const QString line = in.readLine();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')))
            continue;
        if (line.startsWith(QLatin1Char('\t'))) {
            if (!entries.isEmpty())
                entries.last().descriptions.append(line.trimmed());
            continue;
        }
        entries.append({line.trimmed(), {}});
    }
    return entries;
}

// The list is half a megabyte; it is read once per path and kept.
QList<AtrListEntry> atrList(const QString& path)
{
    static QMutex mutex;
    static QHash<QString, QList<AtrListEntry>> loaded;
    QMutexLocker lock(&mutex);
    auto found = loaded.find(path);
    if (found == loaded.end())
        found = loaded.insert(path, parseAtrList(path));
    return found.value();
}

QString spacedUpperHex(const QString& atrHex)
{
    QStringList bytes;
    for (int i = 0; i + 1 < atrHex.size(); i += 2)
        bytes.append(atrHex.mid(i, 2).toUpper());
    return bytes.join(QLatin1Char(' '));
}

} // namespace

QList<CardProfile> cardProfiles()
{
    return {
        {QStringLiteral("lt-eid-mtcos-masktech"),
         QStringLiteral("Lithuanian eID (MTCOS Pro 2.6 / MaskTech)"),
         QStringLiteral("Vantro Sign native driver for the MTCOS Pro 2.6 card (MaskTech)"),
         {QStringLiteral("3b9d188131fc358031c0694d54434f53")},
         QString::fromLatin1(kPkcs15Aid)},
        {QStringLiteral("rc-bit4id-tokenme-evo-ii"),
         QStringLiteral("RC Bit4id TokenME EVO II"),
         QStringLiteral("RC + Bit4id specifications"),
         {QStringLiteral("3bff9600008131"),
          QStringLiteral("3bff1800008131fe45006b150c03020101014234")},
         QString::fromLatin1(kPkcs15Aid)},
    };
}

std::optional<CardProfile> findProfileByAtr(const QList<CardProfile>& profiles,
                                            const QString& atrHex)
{
    std::optional<CardProfile> best;
    qsizetype bestLength = 0;
    for (const CardProfile& profile : profiles) {
        for (const QString& prefix : profile.atrPrefixes) {
            if (prefix.size() > bestLength && atrHex.startsWith(prefix, Qt::CaseSensitive)) {
                best = profile;
                bestLength = prefix.size();
            }
        }
    }
    return best;
}

QString atrToHex(const QByteArray& atr)
{
    return QString::fromLatin1(atr.toHex());
}

QString defaultAtrListPath()
{
    return QStringLiteral("/usr/share/pcsc/smartcard_list.txt");
}

QStringList describeAtrFromList(const QString& atrHex, const QString& listPath)
{
    const QString spaced = spacedUpperHex(atrHex);
    QStringList descriptions;
    for (const AtrListEntry& entry : atrList(listPath)) {
        const QRegularExpression pattern(QStringLiteral("^(?:%1)$").arg(entry.pattern),
                                         QRegularExpression::CaseInsensitiveOption);
        if (pattern.isValid() && pattern.match(spaced).hasMatch())
            descriptions += entry.descriptions;
    }
    return descriptions;
}

} // namespace vantro::pcsc
