#include "ui/SystemDesktopShell.h"

#include "ui/Logging.h"

#include <QDesktopServices>
#include <QFileDialog>

namespace vantro {

QString SystemDesktopShell::pickFolder(const QString& title, const QString& startDir)
{
    return QFileDialog::getExistingDirectory(m_parent, title, startDir);
}

QStringList SystemDesktopShell::pickFiles(const QString& title, const QString& startDir,
                                          const QString& filter)
{
    return QFileDialog::getOpenFileNames(m_parent, title, startDir, filter);
}

bool SystemDesktopShell::openUrl(const QUrl& url)
{
    const bool opened = QDesktopServices::openUrl(url);
    if (!opened)
        qCWarning(lcUi) << "no desktop handler opened" << url.scheme() << "address";
    return opened;
}

} // namespace vantro
