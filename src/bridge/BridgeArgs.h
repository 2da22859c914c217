#pragma once

#include <QString>
#include <QVariantList>
#include <QVariantMap>

// Positional argument reading for bridge handlers. The page may send fewer arguments than a
// method takes, or values of the wrong JSON type; both read as the empty value of the type the
// handler expects, so no handler ever has to guard its own argument list.
namespace vantro::bridgeargs {

// The element's text when it is a scalar (string, number, bool), otherwise "".
QString stringAt(const QVariantList& args, int index);
// The element's map when it is a JSON object, otherwise an empty map.
QVariantMap objectAt(const QVariantList& args, int index);

} // namespace vantro::bridgeargs
