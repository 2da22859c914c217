#pragma once

#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

namespace vantro::pcsc {

// A signing device recognised by the start of its ATR (lower-case hex, no separators).
struct CardProfile
{
    QString id;
    QString label;
    QString driverDescription;
    QStringList atrPrefixes;
    QString aid; // PKCS#15 application identifier, lower-case hex
};

// The known devices, in match order: the Lithuanian eID card and the Bit4id TokenME EVO II.
QList<CardProfile> cardProfiles();

// Longest-prefix match of `atrHex` over every profile's prefixes; on equal length the earlier
// profile wins. Case-sensitive: the ATR must be lower-case hex like the prefixes.
std::optional<CardProfile> findProfileByAtr(const QList<CardProfile>& profiles,
                                            const QString& atrHex);

// Lower-case hex, two digits per byte, no separators.
QString atrToHex(const QByteArray& atr);

// Where Debian's pcsc-tools installs its ATR list.
QString defaultAtrListPath();

// Descriptions of `atrHex` from pcsc-tools' ATR list (smartcard_list.txt), for cards no profile
// knows. Empty when the list is not installed or has no entry.
QStringList describeAtrFromList(const QString& atrHex,
                                const QString& listPath = defaultAtrListPath());

} // namespace vantro::pcsc
