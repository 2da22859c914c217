#include "ui/DiagnosticsView.h"

#include "usb/pcsc/ReaderMonitor.h"
#include "usb/RuntimeBridge.h"

#include "app/Errors.h"

#include <QClipboard>
#include <QFutureWatcher>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QPushButton>
#include <QtConcurrent/QtConcurrentRun>
#include <QTreeWidget>
#include <QVBoxLayout>

#include <utility>

namespace vantro {

namespace {

constexpr int kWidth = 760;
constexpr int kHeight = 560;

} // namespace

DiagnosticsView::DiagnosticsView(DiagnosticsSources sources, QWidget* parent)
    : QDialog(parent)
    , m_sources(std::move(sources))
    , m_report(new QTreeWidget(this))
    , m_monitor(new pcsc::ReaderMonitor(this))
{
    setWindowTitle(QStringLiteral("Vantro Sign diagnostika"));
    resize(kWidth, kHeight);
    m_report->setObjectName(QStringLiteral("report"));
    m_report->setColumnCount(2);
    m_report->setHeaderHidden(true);
    m_report->setRootIsDecorated(false);
    m_report->header()->setSectionResizeMode(0, QHeaderView::ResizeToContents);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(m_report);
    layout->addWidget(buildButtons());

    if (m_sources.runtime) {
        m_data.appVersion = m_sources.runtime->version();
        m_data.qtVersion = m_sources.runtime->qtVersion();
        connect(m_sources.runtime, &RuntimeBridge::savedPinStateChanged, this,
                &DiagnosticsView::refresh);
        connect(m_sources.runtime, &RuntimeBridge::lastMessageChanged, this,
                &DiagnosticsView::refresh);
    }
    m_data.logPath = m_sources.logPath;
    connect(m_monitor, &pcsc::ReaderMonitor::scanned, this, &DiagnosticsView::showReaders,
            Qt::QueuedConnection);
    refresh();
    m_monitor->start();
    checkMiddleware();
}

void DiagnosticsView::checkMiddleware()
{
    if (!m_sources.middlewareReport)
        return;
    auto* watcher = new QFutureWatcher<QJsonObject>(this);
    connect(watcher, &QFutureWatcher<QJsonObject>::finished, this, [this, watcher] {
        m_data.middlewareChecked = true;
        m_data.middleware = watcher->result();
        watcher->deleteLater();
        render();
    });
    watcher->setFuture(QtConcurrent::run([report = m_sources.middlewareReport] {
        try {
            return report();
        } catch (const std::exception& error) {
            return QJsonObject{{QStringLiteral("error"), describeFailure(error)}};
        }
    }));
}

DiagnosticsView::~DiagnosticsView()
{
    m_monitor->stop();
}

QWidget* DiagnosticsView::buildButtons()
{
    auto* row = new QWidget(this);
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    const auto add = [&](const char* name, const QString& text, auto action) {
        auto* button = new QPushButton(text, row);
        button->setObjectName(QString::fromLatin1(name));
        button->setAutoDefault(false);
        connect(button, &QPushButton::clicked, this, action);
        layout->addWidget(button);
    };
    add("clearPins", QStringLiteral("Pašalinti išsaugotus PIN"), [this] {
        if (m_sources.runtime)
            m_sources.runtime->clearStoredPins();
        refresh();
    });
    add("openPinFolder", QStringLiteral("Atidaryti PIN aplanką"), [this] {
        if (m_sources.runtime)
            m_sources.runtime->openStoredPinFolder();
    });
    add("openLog", QStringLiteral("Atidaryti žurnalą"), [this] {
        if (m_sources.openUrl)
            m_sources.openUrl(QUrl::fromLocalFile(m_sources.logPath));
    });
    add("copyReport", QStringLiteral("Kopijuoti ataskaitą"),
        [this] { QGuiApplication::clipboard()->setText(reportText()); });
    layout->addStretch();
    add("close", QStringLiteral("Uždaryti"), &QDialog::close);
    return row;
}

QString DiagnosticsView::reportText() const
{
    return diagnosticsText(diagnosticsSections(m_data));
}

void DiagnosticsView::refresh()
{
    if (m_sources.helperStatus)
        m_data.helper = m_sources.helperStatus();
    if (m_sources.runtime) {
        m_sources.runtime->refresh();
        m_data.savedPinCount = m_sources.runtime->savedPinCount();
        m_data.pinDirectory = m_sources.runtime->storedPinDirectory();
        m_data.lastMessage = m_sources.runtime->lastMessage();
    }
    render();
}

void DiagnosticsView::showReaders(const pcsc::ReaderScan& scan)
{
    m_data.readersScanned = true;
    m_data.readers = scan;
    render();
}

void DiagnosticsView::render()
{
    m_report->clear();
    for (const DiagnosticsSection& section : diagnosticsSections(m_data)) {
        auto* title = new QTreeWidgetItem(m_report, {section.title});
        QFont bold = title->font(0);
        bold.setBold(true);
        title->setFont(0, bold);
        title->setFirstColumnSpanned(true);
        for (const auto& [label, value] : section.rows)
            new QTreeWidgetItem(title, {label, value});
        title->setExpanded(true);
    }
}

} // namespace vantro
