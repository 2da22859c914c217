#include "bridge/BridgeArgs.h"

namespace vantro::bridgeargs {

QString stringAt(const QVariantList& args, int index)
{
    // Scalars give their text; objects, lists and null give "" (QVariant does not convert them).
    return args.value(index).toString();
}

QVariantMap objectAt(const QVariantList& args, int index)
{
    // Page arguments come from JSON, where an object always arrives as a QVariantMap.
    const QVariant value = args.value(index);
    return value.typeId() == QMetaType::QVariantMap ? value.toMap() : QVariantMap();
}

} // namespace vantro::bridgeargs
