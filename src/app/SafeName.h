#pragma once

#include <QString>

namespace vantro {

// A name that every file system we write to accepts as one path component: trimmed, the
// characters Windows forbids and all control characters replaced by "_", trailing dots and spaces
// removed, then cut to `maxLength` characters (never inside a surrogate pair). May be empty.
QString windowsSafeName(const QString& name, int maxLength);

} // namespace vantro
