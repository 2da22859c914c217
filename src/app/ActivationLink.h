#pragma once

#include <QString>
#include <QStringList>

namespace vantro {

// True when `text` begins with "vantrosign:" in any letter case.
bool isActivationLink(const QString& text);

// A form of an activation link that is safe to write to a log: the scheme and the requested
// action survive, everything that could carry a code or token becomes "***".
//
//   vantrosign://activate?code=X&ws=Y  ->  vantrosign://activate?code=***&ws=***
//   vantrosign://activate/ABC-123      ->  vantrosign://activate/***
//   vantrosign:ABC-123                 ->  vantrosign:***
//
// The action (the authority, or the first path segment of a link without one) is kept only when
// it is one of the known action words, because a link may carry its code in that place too.
// Query keys are kept when they look like identifiers; a query item without "=" is masked whole,
// as is the fragment. Text that is not an activation link is returned unchanged.
QString redactActivationLink(const QString& link);

// The arguments joined by single spaces, every activation link among them redacted.
QString redactedArguments(const QStringList& arguments);

} // namespace vantro
