#include "platform/ComApartment.h"

namespace vantro::platform {

// Nothing to prepare outside Windows.
long initializeComApartment()
{
    return 0;
}

void uninitializeComApartment() {}

} // namespace vantro::platform
