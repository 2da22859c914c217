#pragma once

namespace vantro::platform {

// The main thread's COM single-threaded apartment, which the embedded browser needs on Windows.
// initialize() returns the HRESULT-like result: negative on failure.
long initializeComApartment();
void uninitializeComApartment();

} // namespace vantro::platform
