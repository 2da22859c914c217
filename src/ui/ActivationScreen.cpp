#include "ui/ActivationScreen.h"

#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

namespace vantro {

namespace {

constexpr int kWidth = 460;

} // namespace

ActivationScreen::ActivationScreen(QWidget* parent)
    : QDialog(parent)
    , m_code(new QLineEdit(this))
    , m_activate(new QPushButton(QStringLiteral("Aktyvuoti"), this))
    , m_progress(new QProgressBar(this))
    , m_message(new QLabel(this))
{
    setWindowTitle(QStringLiteral("Aktyvuoti šį kompiuterį"));
    setMinimumWidth(kWidth);
    auto* intro = new QLabel(QStringLiteral("Įveskite aktyvavimo kodą, kurį gavote iš Vantro Sign. "
                                            "Aktyvuotas kompiuteris gali pasirašyti ir saugoti "
                                            "dokumentus šiame kompiuteryje."),
                             this);
    intro->setWordWrap(true);
    m_code->setObjectName(QStringLiteral("code"));
    m_code->setPlaceholderText(QStringLiteral("Aktyvavimo kodas"));
    m_activate->setObjectName(QStringLiteral("activate"));
    m_activate->setDefault(true);
    m_progress->setObjectName(QStringLiteral("progress"));
    m_progress->setRange(0, 0); // busy: the service gives no progress of its own
    m_progress->setTextVisible(false);
    m_progress->hide();
    m_message->setObjectName(QStringLiteral("message"));
    m_message->setWordWrap(true);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(intro);
    layout->addWidget(m_code);
    layout->addWidget(m_activate);
    layout->addWidget(m_progress);
    layout->addWidget(m_message);

    connect(m_activate, &QPushButton::clicked, this,
            [this] { Q_EMIT activationRequested(m_code->text()); });
    connect(m_code, &QLineEdit::returnPressed, m_activate, &QPushButton::click);
}

void ActivationScreen::setCode(const QString& code)
{
    m_code->setText(code);
}

QString ActivationScreen::code() const
{
    return m_code->text();
}

void ActivationScreen::showProgress()
{
    setBusy(true);
    m_message->setStyleSheet(QString());
    m_message->setText(QStringLiteral("Aktyvuojama, palaukite…"));
}

void ActivationScreen::showError(const QString& message)
{
    setBusy(false);
    m_message->setStyleSheet(QStringLiteral("color: #b3261e;"));
    m_message->setText(message);
    m_code->setFocus();
}

QString ActivationScreen::message() const
{
    return m_message->text();
}

void ActivationScreen::setBusy(bool busy)
{
    m_code->setEnabled(!busy);
    m_activate->setEnabled(!busy);
    m_progress->setVisible(busy);
}

} // namespace vantro
