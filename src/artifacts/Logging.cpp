#include "artifacts/Logging.h"

Q_LOGGING_CATEGORY(lcArtifacts, "vantro.artifacts")
