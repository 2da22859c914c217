#pragma once

#include <QString>

namespace vantro::platform {

struct RevealOutcome
{
    bool shown = false;
    // True where this platform's way of revealing ends in opening the folder when the file
    // manager cannot select the file (Linux desktops without a FileManager1 service).
    bool openFolderInstead = false;
    QString error; // why it was not shown, for the caller's error text
};

// Shows the file's folder in the file manager with the file selected, and waits for the
// file manager to accept the request.
// Windows: SHParseDisplayName and SHOpenFolderAndSelectItems; a failure is final.
// Linux: org.freedesktop.FileManager1.ShowItems over the session bus.
RevealOutcome revealSelected(const QString& path);

// Starts a file manager selecting the file and does not wait for it. False when nothing could
// be started; the caller then opens the containing folder instead.
// Windows: "explorer.exe" "/select," <native path>, detached. Linux: the same D-Bus request.
bool startRevealSelected(const QString& path);

} // namespace vantro::platform
