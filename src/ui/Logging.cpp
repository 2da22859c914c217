#include "ui/Logging.h"

Q_LOGGING_CATEGORY(lcUi, "vantro.ui")
