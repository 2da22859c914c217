#pragma once

#include <QObject>
#include <QString>

#include <functional>

namespace vantro {

// The one native object the page's shim talks to over the web channel. Everything public here
// is reachable from the page, so it carries exactly one call in and one signal out.
class WebMessagePort : public QObject
{
    Q_OBJECT
public:
    using Receiver = std::function<void(const QString& json)>;

    explicit WebMessagePort(QObject* parent = nullptr)
        : QObject(parent)
    {
    }
    void setReceiver(Receiver receiver) { m_receiver = std::move(receiver); }

public Q_SLOTS:
    // A message posted by the page: JSON text.
    void postMessage(const QString& json)
    {
        if (m_receiver)
            m_receiver(json);
    }

Q_SIGNALS:
    // A message for the page's listeners: JSON text.
    void message(const QString& json);

private:
    Receiver m_receiver;
};

} // namespace vantro
