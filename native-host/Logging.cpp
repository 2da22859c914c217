#include "Logging.h"

Q_LOGGING_CATEGORY(lcHost, "vantro.host", QtWarningMsg)
