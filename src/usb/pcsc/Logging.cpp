#include "usb/pcsc/Logging.h"

Q_LOGGING_CATEGORY(lcPcsc, "vantro.pcsc")
