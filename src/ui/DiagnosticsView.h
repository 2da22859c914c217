#pragma once

#include "app/OrderedJson.h"
#include "ui/DiagnosticsReport.h"

#include <QDialog>
#include <QUrl>

#include <functional>

class QTreeWidget;

namespace vantro {

class RuntimeBridge;
namespace pcsc {
class ReaderMonitor;
}

// Where the diagnostics view reads from and how it opens things.
struct DiagnosticsSources
{
    RuntimeBridge* runtime = nullptr;
    std::function<OrderedObject()> helperStatus;
    QString logPath;
    std::function<bool(const QUrl&)> openUrl;
    // The middleware diagnostics program's report; run off the GUI thread, it may take seconds.
    std::function<QJsonObject()> middlewareReport;
};

// The native diagnostics window, in Lithuanian: versions, the card host, saved PINs with their
// actions, the readers and cards (kept current by a reader monitor while the view is open),
// the mirror queue and the log file, and a button that copies the whole report as text.
class DiagnosticsView : public QDialog
{
    Q_OBJECT
public:
    explicit DiagnosticsView(DiagnosticsSources sources, QWidget* parent = nullptr);
    ~DiagnosticsView() override;

    QString reportText() const;

public Q_SLOTS:
    // Reads the helper status and the saved PINs again and redraws.
    void refresh();

private:
    void showReaders(const pcsc::ReaderScan& scan);
    void checkMiddleware();
    void render();
    QWidget* buildButtons();

    DiagnosticsSources m_sources;
    DiagnosticsData m_data;
    QTreeWidget* m_report = nullptr;
    pcsc::ReaderMonitor* m_monitor = nullptr;
};

} // namespace vantro
