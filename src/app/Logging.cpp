#include "app/Logging.h"

Q_LOGGING_CATEGORY(lcApp, "vantro.app")
