#include "update/Logging.h"

Q_LOGGING_CATEGORY(lcUpdate, "vantro.update")
