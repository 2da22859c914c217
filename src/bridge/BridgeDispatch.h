#pragma once

#include "app/OrderedJson.h"

#include <QList>
#include <QString>
#include <QVariantList>

namespace vantro {

class DesktopBridge;

using BridgeHandler = OrderedObject (*)(DesktopBridge& bridge, const QVariantList& args);

// What a row needs before its handler may run; the dispatcher answers the matching error
// instead of calling the handler, so handlers never test for absent parts themselves.
enum BridgeNeeds : unsigned {
    NeedsNothing = 0,
    NeedsState = 1u << 0,
    NeedsShell = 1u << 1,
    NeedsUpdates = 1u << 2,
};

// One row of a method table. A row whose component is not part of this build has no handler
// and is answered with the table's unavailable code naming `component`; building the component
// means filling in the handler, nothing else.
struct BridgeMethod
{
    const char* name;
    BridgeHandler handler;
    const char* component;
    unsigned needs;
};

// A row that calls `handler` once the parts in `needs` are present.
inline BridgeMethod methodRow(const char* name, BridgeHandler handler, unsigned needs = NeedsState)
{
    return {name, handler, nullptr, needs};
}

// A row whose `component` is not part of this build yet.
inline BridgeMethod pendingRow(const char* name, const char* component)
{
    return {name, nullptr, component, NeedsNothing};
}

struct DispatchTable
{
    const char* unavailableCode;
    QList<BridgeMethod> methods;
};

// The "sign:" and "usb:" tables, rows in dispatch order.
const DispatchTable& signMethodTable();
const DispatchTable& usbMethodTable();

// Finds `method` in the table (exact, case-sensitive, in row order) and runs its row.
OrderedObject dispatchMethod(const DispatchTable& table, DesktopBridge& bridge,
                             const QString& method, const QVariantList& args);

} // namespace vantro
