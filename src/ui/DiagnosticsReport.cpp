#include "ui/DiagnosticsReport.h"

#include <QJsonArray>
#include <QJsonValue>

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

QString tokenText(const QJsonObject& token)
{
    QString text = QStringLiteral("%1, sertifikatų: %2")
                       .arg(token.value(QLatin1String("model")).toString())
                       .arg(token.value(QLatin1String("certificates")).toArray().size());
    if (token.value(QLatin1String("pinLocked")).toBool())
        text += QStringLiteral(", PIN užblokuotas");
    else if (token.value(QLatin1String("pinFinalTry")).toBool())
        text += QStringLiteral(", liko paskutinis PIN bandymas");
    return text;
}

QString certificateText(const QJsonObject& certificate)
{
    QStringList usage = certificate.value(QLatin1String("keyUsage")).toVariant().toStringList();
    usage += certificate.value(QLatin1String("extendedKeyUsage")).toVariant().toStringList();
    return QStringLiteral("%1 (%2 %3; %4), galioja iki %5")
        .arg(certificate.value(QLatin1String("subject")).toString(),
             certificate.value(QLatin1String("keyType")).toString(),
             QString::number(certificate.value(QLatin1String("keyBits")).toInt()),
             usage.join(QStringLiteral(", ")),
             certificate.value(QLatin1String("notAfter")).toString());
}

void addModuleRows(const QJsonObject& module, DiagnosticsSection& section)
{
    const QString path = QDir::toNativeSeparators(module.value(QLatin1String("path")).toString());
    if (!module.value(QLatin1String("loaded")).toBool()) {
        section.rows.append(
            {path, QStringLiteral("neįkelta: ") + module.value(QLatin1String("error")).toString()});
        return;
    }
    section.rows.append({path, QStringLiteral("įkelta: %1 %2")
                                   .arg(module.value(QLatin1String("description")).toString(),
                                        module.value(QLatin1String("version")).toString())});
    for (const QJsonValue& slot : module.value(QLatin1String("slots")).toArray()) {
        const QJsonObject token = slot[QLatin1String("token")].toObject();
        if (!token.value(QLatin1String("initialized")).toBool())
            continue;
        section.rows.append(
            {QStringLiteral("  priemonė „%1“").arg(token.value(QLatin1String("label")).toString()),
             tokenText(token)});
        for (const QJsonValue& certificate : token.value(QLatin1String("certificates")).toArray())
            section.rows.append(
                {QStringLiteral("    sertifikatas"), certificateText(certificate.toObject())});
    }
}

DiagnosticsSection middlewareSection(const DiagnosticsData& data)
{
    DiagnosticsSection section{QStringLiteral("Kortelių tvarkyklės (PKCS#11)"), {}};
    const auto note = [&](const QString& text) {
        section.rows.append({QStringLiteral("Būsena"), text});
    };
    const QJsonArray modules = data.middleware.value(QLatin1String("modules")).toArray();
    if (!data.middlewareChecked)
        note(QStringLiteral("tikrinama…"));
    else if (data.middleware.contains(QLatin1String("error")))
        note(data.middleware.value(QLatin1String("error")).toString());
    else if (modules.isEmpty())
        note(QStringLiteral("tvarkyklių nerasta: įdiekite kortelės ar USB rakto gamintojo "
                            "programinę įrangą arba OpenSC"));
    for (const QJsonValue& module : modules)
        addModuleRows(module.toObject(), section);
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
        middlewareSection(data),
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
