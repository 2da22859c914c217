#pragma once

#include <QByteArray>
#include <QDialog>
#include <QString>

#include <optional>

class QLabel;
class QLineEdit;
class QPushButton;

namespace vantro::host {

// What the user is told when asked for a PIN.
struct PinRequest
{
    QString tokenLabel;
    bool forSigning = true; // otherwise for authentication
    bool countLow = false;  // the token reports few tries left
    bool finalTry = false;  // the token reports one try left
    int minLength = 4;
    int maxLength = 12;
};

// Lithuanian texts of the prompt, shared by the dialog and the PIN pad notice.
QString pinPromptText(const PinRequest& request);
QString triesText(const PinRequest& request); // empty when the token says nothing of tries

class PinPrompt
{
public:
    virtual ~PinPrompt() = default;
    // The PIN, or nothing when the user cancelled. Throws "ERR_VANTRO_TIMEOUT" when nobody
    // answered in time.
    virtual std::optional<QByteArray> ask(const PinRequest& request) = 0;
    // Shown while the reader's own PIN pad waits for the PIN.
    virtual void showPinPadNotice(const PinRequest& request) = 0;
    virtual void hidePinPadNotice() = 0;
};

// The PIN dialog: the token's label, the tries left as far as the token tells, a masked field
// accepting the token's PIN lengths, "Patvirtinti" and "Atšaukti".
class PinDialog : public QDialog
{
    Q_OBJECT
public:
    explicit PinDialog(const PinRequest& request, QWidget* parent = nullptr);
    QByteArray pin() const;
    void clearPin();

private:
    QLineEdit* m_pin;
    QPushButton* m_confirm;
};

// Asks with PinDialog; gives up after `timeoutMs`.
class DialogPinPrompt : public PinPrompt
{
public:
    explicit DialogPinPrompt(int timeoutMs);
    std::optional<QByteArray> ask(const PinRequest& request) override;
    void showPinPadNotice(const PinRequest& request) override;
    void hidePinPadNotice() override;

private:
    int m_timeoutMs;
    QDialog* m_notice = nullptr;
};

// The prompt the host uses. In a build with test hooks, VANTRO_SIGN_TEST_PIN answers it.
std::unique_ptr<PinPrompt> makePinPrompt(int timeoutMs);

} // namespace vantro::host
