#pragma once

#include "app/OrderedJson.h"
#include "usb/pcsc/Readers.h"

#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QString>

namespace vantro {

// Everything the diagnostics view shows, gathered from its sources.
struct DiagnosticsData
{
    QString appVersion;
    QString qtVersion;
    OrderedObject helper; // the helper-runtime object (availability, path, mirror counts)
    int savedPinCount = 0;
    QString pinDirectory;
    QString lastMessage;
    bool readersScanned = false; // false until the first reader scan arrives
    pcsc::ReaderScan readers;
    QString logPath;
    bool middlewareChecked = false; // false until the diagnostics program has answered
    QJsonObject middleware;         // its report, or {"error": text}
};

// One titled block of label/value rows.
struct DiagnosticsSection
{
    QString title;
    QList<QPair<QString, QString>> rows;
};

// The report in Lithuanian, as the view shows it and as it is copied for a support request.
QList<DiagnosticsSection> diagnosticsSections(const DiagnosticsData& data);
QString diagnosticsText(const QList<DiagnosticsSection>& sections);

} // namespace vantro
