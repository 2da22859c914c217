#include "api/Logging.h"

Q_LOGGING_CATEGORY(lcApi, "vantro.api")
