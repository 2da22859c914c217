#pragma once

#include <QJsonArray>
#include <QString>
#include <QStringList>

namespace vantro {

struct DropImportOutcome
{
    bool ok = false;
    QJsonArray imported; // the store's import result when ok
    QString error;       // "CODE: detail" otherwise
};

// Imports dropped files into the local store. Runs on a worker thread: it builds its own
// AppState on `deviceJsonPath` and its own LocalStore (and so its own database connection),
// and destroys both before returning. Never throws.
DropImportOutcome runDropImport(const QString& deviceJsonPath, const QStringList& paths);

} // namespace vantro
