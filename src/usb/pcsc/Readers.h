#pragma once

#include <QList>
#include <QMetaType>
#include <QString>
#include <QStringList>

#include <stdexcept>

namespace vantro::pcsc {

// A failed PC/SC call: "<function> failed with PC/SC code <code>", the code printed unsigned
// as the PC/SC documentation lists it (0x8010002E is 2148532270).
class PcscError : public std::runtime_error
{
public:
    PcscError(const QString& function, quint32 code);
    QString function() const { return m_function; }
    quint32 code() const { return m_code; }

private:
    QString m_function;
    quint32 m_code;
};

// One reader as the diagnostics view shows it.
struct ReaderInfo
{
    QString name;
    bool cardPresent = false;
    QString atrHex;
    QString profileLabel;            // empty when no profile knows the ATR
    QStringList atrListDescriptions; // pcsc-tools' descriptions of an unknown card
    QString error;                   // why the reader could not be read; it is skipped
};

// Every reader at one moment. `serviceError` is set when the PC/SC service could not be used
// at all (not running, stopped, or the reader list failed).
struct ReaderScan
{
    QString serviceError;
    QList<ReaderInfo> readers;
    bool serviceAvailable() const { return serviceError.isEmpty(); }
};

// Which signing devices are inserted.
struct DetectedCards
{
    bool bit4idToken = false;
    bool lithuanianEid = false;
};

// Reads every reader: a reader whose connection or status read fails is reported with its
// error and skipped; the service being unavailable is reported, never thrown.
ReaderScan scanReaders();

// The two device flags. A context that cannot be established reports no cards; a failing
// reader list throws PcscError.
DetectedCards detectCards();

} // namespace vantro::pcsc

Q_DECLARE_METATYPE(vantro::pcsc::ReaderScan)
