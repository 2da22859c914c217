#include "platform/ComApartment.h"

#include <ole2.h>

namespace vantro::platform {

long initializeComApartment()
{
    return static_cast<long>(OleInitialize(nullptr));
}

void uninitializeComApartment()
{
    OleUninitialize();
}

} // namespace vantro::platform
