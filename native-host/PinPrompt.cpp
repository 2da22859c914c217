#include "PinPrompt.h"

#include "app/Errors.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRegularExpressionValidator>
#include <QTimer>
#include <QVBoxLayout>

#include <memory>

namespace vantro::host {

QString pinPromptText(const PinRequest& request)
{
    const QString purpose =
        request.forSigning ? QStringLiteral("pasirašymo") : QStringLiteral("prisijungimo");
    return QStringLiteral("Įveskite %1 PIN kodą priemonei „%2“.").arg(purpose, request.tokenLabel);
}

QString triesText(const PinRequest& request)
{
    if (request.finalTry)
        return QStringLiteral("Liko paskutinis bandymas: suklydus PIN bus užblokuotas.");
    if (request.countLow)
        return QStringLiteral("Liko nedaug bandymų.");
    return {};
}

PinDialog::PinDialog(const PinRequest& request, QWidget* parent)
    : QDialog(parent)
    , m_pin(new QLineEdit(this))
{
    setWindowTitle(QStringLiteral("Vantro Sign – PIN kodas"));
    auto* layout = new QVBoxLayout(this);
    auto* prompt = new QLabel(pinPromptText(request), this);
    prompt->setObjectName(QStringLiteral("prompt"));
    prompt->setWordWrap(true);
    layout->addWidget(prompt);
    auto* tries = new QLabel(triesText(request), this);
    tries->setObjectName(QStringLiteral("tries"));
    tries->setVisible(!tries->text().isEmpty());
    layout->addWidget(tries);
    m_pin->setObjectName(QStringLiteral("pin"));
    m_pin->setEchoMode(QLineEdit::Password);
    m_pin->setMaxLength(request.maxLength);
    layout->addWidget(m_pin);
    auto* buttons = new QDialogButtonBox(this);
    m_confirm = buttons->addButton(QStringLiteral("Patvirtinti"), QDialogButtonBox::AcceptRole);
    m_confirm->setObjectName(QStringLiteral("confirm"));
    buttons->addButton(QStringLiteral("Atšaukti"), QDialogButtonBox::RejectRole)
        ->setObjectName(QStringLiteral("cancel"));
    layout->addWidget(buttons);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    const int minimum = request.minLength;
    const auto update = [this, minimum] {
        m_confirm->setEnabled(m_pin->text().size() >= minimum);
    };
    connect(m_pin, &QLineEdit::textChanged, this, update);
    update();
}

QByteArray PinDialog::pin() const
{
    return m_pin->text().toUtf8();
}

void PinDialog::clearPin()
{
    m_pin->clear();
}

DialogPinPrompt::DialogPinPrompt(int timeoutMs)
    : m_timeoutMs(timeoutMs)
{
}

std::optional<QByteArray> DialogPinPrompt::ask(const PinRequest& request)
{
    PinDialog dialog(request);
    bool timedOut = false;
    QTimer::singleShot(m_timeoutMs, &dialog, [&] {
        timedOut = true;
        dialog.reject();
    });
    dialog.setWindowFlag(Qt::WindowStaysOnTopHint);
    const int result = dialog.exec();
    const QByteArray pin = dialog.pin();
    dialog.clearPin();
    if (timedOut)
        throw CodedError(QStringLiteral("ERR_VANTRO_TIMEOUT"),
                         QStringLiteral("Nobody entered the PIN in time."));
    if (result != QDialog::Accepted)
        return std::nullopt;
    return pin;
}

void DialogPinPrompt::showPinPadNotice(const PinRequest& request)
{
    m_notice = new QDialog;
    m_notice->setWindowTitle(QStringLiteral("Vantro Sign – PIN kodas"));
    auto* layout = new QVBoxLayout(m_notice);
    layout->addWidget(new QLabel(pinPromptText(request) +
                                     QStringLiteral(" Naudokite kortelių skaitytuvo klaviatūrą."),
                                 m_notice));
    m_notice->setWindowFlag(Qt::WindowStaysOnTopHint);
    m_notice->show();
}

void DialogPinPrompt::hidePinPadNotice()
{
    delete m_notice;
    m_notice = nullptr;
}

#ifdef VANTRO_TEST_HOOKS
namespace {
// Answers from the environment so tests can sign without a person; absent from release builds.
class EnvironmentPinPrompt : public DialogPinPrompt
{
public:
    using DialogPinPrompt::DialogPinPrompt;
    std::optional<QByteArray> ask(const PinRequest& request) override
    {
        if (!qEnvironmentVariableIsSet("VANTRO_SIGN_TEST_PIN"))
            return DialogPinPrompt::ask(request);
        const QByteArray pin = qgetenv("VANTRO_SIGN_TEST_PIN");
        if (pin.isEmpty())
            return std::nullopt; // the user cancelled
        return pin;
    }
};
} // namespace

std::unique_ptr<PinPrompt> makePinPrompt(int timeoutMs)
{
    return std::make_unique<EnvironmentPinPrompt>(timeoutMs);
}
#else
std::unique_ptr<PinPrompt> makePinPrompt(int timeoutMs)
{
    return std::make_unique<DialogPinPrompt>(timeoutMs);
}
#endif

} // namespace vantro::host
