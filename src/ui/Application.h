#pragma once

namespace vantro {

// The whole life of the program: COM apartment, application identity, instance lock, then
// either a handoff to the running instance or the primary instance's window, tray and event loop.
// Returns the process exit code.
int runApplication(int argc, char** argv);

} // namespace vantro
