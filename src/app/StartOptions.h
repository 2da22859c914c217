#pragma once

#include <QString>
#include <QStringList>

namespace vantro {

struct StartOptions
{
    bool tray = false; // start hidden in the tray
    QString link;      // the activation link handed over on the command line, or empty
};

// Reads the full argument list (program path included): "--tray" must match exactly, the link
// is the first argument beginning with "vantrosign:" in any letter case.
StartOptions parseStartOptions(const QStringList& arguments);

// The message shown when the main thread's COM apartment cannot be prepared.
QString comFailureText(long result);

} // namespace vantro
