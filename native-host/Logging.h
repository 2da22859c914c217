#pragma once

#include <QLoggingCategory>

// Off below warnings by default: the host's standard error becomes the user's message when it
// fails without an answer.
Q_DECLARE_LOGGING_CATEGORY(lcHost)
