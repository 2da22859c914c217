#pragma once

#include <QString>

namespace vantro {

// File name of the card host program on this platform.
QString nativeHostFileName();
// Where the card host program is expected: beside the application's own executable.
QString nativeHostPath();
// Whether the card host program is present there.
bool nativeHostPresent();

} // namespace vantro
