#include "ui/DiagnosticsReport.h"

#include <QDir>
#include <QStringList>

namespace vantro {

namespace {

const QString kNone = QStringLiteral("—");

QString orNone(const QString& text)
{
    return text.isEmpty() ? kNone : text;
}

QString describeCard(const pcsc::ReaderInfo& reader)
{
    if (!reader.error.isEmpty())
        return QStringLiteral("nepavyko nuskaityti (%1)").arg(reader.error);
    if (!reader.cardPresent)
        return QStringLiteral("kortelės nėra");
    QString card = QStringLiteral("ATR %1 — ").arg(reader.atrHex);
    if (!reader.profileLabel.isEmpty())
        return card + reader.profileLabel;
    card += QStringLiteral("nepalaikoma kortelė");
    if (!reader.atrListDescriptions.isEmpty())
        card += QStringLiteral(" (%1)").arg(reader.atrListDescriptions.join(QStringLiteral("; ")));
    return card;
}

DiagnosticsSection readerSection(const DiagnosticsData& data)
{
    DiagnosticsSection section{QStringLiteral("Kortelių skaitytuvai"), {}};
    const auto note = [&](const QString& text) {
        section.rows.append({QStringLiteral("Būsena"), text});
    };
    if (!data.readersScanned)
        note(QStringLiteral("tikrinama…"));
    else if (!data.readers.serviceAvailable())
        note(QStringLiteral("kortelių tarnyba (PC/SC) nepasiekiama: %1")
                 .arg(data.readers.serviceError));
    else if (data.readers.readers.isEmpty())
        note(QStringLiteral("skaitytuvų nerasta"));
    for (const pcsc::ReaderInfo& reader : data.readers.readers)
        section.rows.append({reader.name, describeCard(reader)});
    return section;
}

} // namespace

QList<DiagnosticsSection> diagnosticsSections(const DiagnosticsData& data)
{
    const bool helperFound = data.helper.value(QStringLiteral("helperAvailable")).toBool();
    return {
        {QStringLiteral("Programa"),
         {{QStringLiteral("Vantro Sign versija"), data.appVersion},
          {QStringLiteral("Qt versija"), data.qtVersion}}},
        {QStringLiteral("Pasirašymo programa (USB raktai ir eID kortelės)"),
         {{QStringLiteral("Būsena"),
           helperFound ? QStringLiteral("rasta") : QStringLiteral("nerasta")},
          {QStringLiteral("Vieta"),
           orNone(QDir::toNativeSeparators(
               data.helper.value(QStringLiteral("helperRuntimePath")).toString()))}}},
        {QStringLiteral("Išsaugoti PIN"),
         {{QStringLiteral("Kiekis"), QString::number(data.savedPinCount)},
          {QStringLiteral("Aplankas"), QDir::toNativeSeparators(data.pinDirectory)},
          {QStringLiteral("Paskutinis veiksmas"), orNone(data.lastMessage)}}},
        readerSection(data),
        {QStringLiteral("Pasirašytų dokumentų kopijavimo eilė"),
         {{QStringLiteral("Laukia"),
           QString::number(data.helper.value(QStringLiteral("pendingMirrorCount")).toInt())},
          {QStringLiteral("Nepavyko"),
           QString::number(data.helper.value(QStringLiteral("failedMirrorCount")).toInt())}}},
        {QStringLiteral("Žurnalas"),
         {{QStringLiteral("Failas"), QDir::toNativeSeparators(data.logPath)}}},
    };
}

QString diagnosticsText(const QList<DiagnosticsSection>& sections)
{
    QStringList lines{QStringLiteral("Vantro Sign diagnostika")};
    for (const DiagnosticsSection& section : sections) {
        lines << QString() << section.title;
        for (const auto& [label, value] : section.rows)
            lines << QStringLiteral("  %1: %2").arg(label, value);
    }
    return lines.join(QLatin1Char('\n')) + QLatin1Char('\n');
}

} // namespace vantro
