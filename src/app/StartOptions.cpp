#include "app/StartOptions.h"

#include "app/ActivationLink.h"

#include <algorithm>

namespace vantro {

StartOptions parseStartOptions(const QStringList& arguments)
{
    StartOptions options;
    options.tray = arguments.contains(QStringLiteral("--tray"), Qt::CaseSensitive);
    const auto link = std::find_if(arguments.cbegin(), arguments.cend(), isActivationLink);
    if (link != arguments.cend())
        options.link = *link;
    return options;
}

QString comFailureText(long result)
{
    const QString hex = QString::number(static_cast<quint32>(result), 16);
    return QStringLiteral("Nepavyko inicijuoti Windows COM STA aplinkos (HRESULT 0x%1).")
        .arg(hex.rightJustified(8, QLatin1Char('0')));
}

} // namespace vantro
