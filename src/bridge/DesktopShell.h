#pragma once

#include <QString>
#include <QStringList>
#include <QUrl>

namespace vantro {

// Everything the bridge needs from the desktop: dialogs and opening things. The window
// implements it; tests substitute their own. Worker-thread bridges have none.
class DesktopShell
{
public:
    virtual ~DesktopShell() = default;
    // Empty when the dialog was cancelled.
    virtual QString pickFolder(const QString& title, const QString& startDir) = 0;
    // Empty when the dialog was cancelled.
    virtual QStringList pickFiles(const QString& title, const QString& startDir,
                                  const QString& filter) = 0;
    // Opens a URL (local-file URLs included) with the desktop's default handler.
    virtual bool openUrl(const QUrl& url) = 0;
};

} // namespace vantro
