#pragma once

namespace vantro::platform {

// Makes a polite termination request from outside (SIGTERM or SIGINT on Unix, for example at
// session logout; a console close or Ctrl+C on Windows) end the running event loop, so that
// the normal shutdown runs and releases the instance lock. A second request while shutting down
// falls back to the system's default handling. Call once, after the application object exists.
void exitEventLoopOnTerminationRequest();

} // namespace vantro::platform
