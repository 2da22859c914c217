#pragma once

#include "bridge/DesktopShell.h"

#include <QPointer>
#include <QWidget>

namespace vantro {

// The real desktop: native file dialogs over the window and the desktop's default handlers.
class SystemDesktopShell : public DesktopShell
{
public:
    explicit SystemDesktopShell(QWidget* dialogParent)
        : m_parent(dialogParent)
    {
    }

    QString pickFolder(const QString& title, const QString& startDir) override;
    QStringList pickFiles(const QString& title, const QString& startDir,
                          const QString& filter) override;
    bool openUrl(const QUrl& url) override;

private:
    QPointer<QWidget> m_parent;
};

} // namespace vantro
