#pragma once

#include <QString>

namespace vantro {

// Appends "<local ISO date-time with ms> <message>" and a line feed, UTF-8, to
// appDataDir()/logs/single-instance.log. A log that cannot be opened drops the line: the
// program must never fail or stop because its diagnostics cannot be written.
void logLine(const QString& message);

// The log file logLine() writes to.
QString instanceLogPath();

} // namespace vantro
