#include "bridge/BridgeLogging.h"

Q_LOGGING_CATEGORY(lcBridge, "vantro.bridge")
