#pragma once

#include <QDialog>

class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;

namespace vantro {

// The native activation screen: a code field, the activate button, progress while the service
// answers, and the reason in Lithuanian when it refuses. The window does the activation itself
// when `activationRequested` arrives and reports back with showProgress/showError.
class ActivationScreen : public QDialog
{
    Q_OBJECT
public:
    explicit ActivationScreen(QWidget* parent = nullptr);

    void setCode(const QString& code);
    QString code() const;
    // While the service is asked: the field and button are disabled and a busy bar shows.
    void showProgress();
    void showError(const QString& message);
    QString message() const;

Q_SIGNALS:
    void activationRequested(const QString& code);

private:
    void setBusy(bool busy);

    QLineEdit* m_code = nullptr;
    QPushButton* m_activate = nullptr;
    QProgressBar* m_progress = nullptr;
    QLabel* m_message = nullptr;
};

} // namespace vantro
