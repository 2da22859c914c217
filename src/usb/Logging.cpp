#include "usb/Logging.h"

Q_LOGGING_CATEGORY(lcUsb, "vantro.usb")
