#pragma once

#include "app/OrderedJson.h"

#include <QDate>
#include <QJsonObject>
#include <QString>

#include <functional>

namespace vantro {

// What happens to a document's or an artifact's file when the user deletes it: kept, removed for
// good, or moved into the deleted-files folder (optionally grouped by month), as the user's
// deletion settings say. Nothing outside the local root is ever touched.
class LocalDeletion
{
public:
    // A plain rename that never copies (QDir::rename); tests replace it to force the fallback.
    using Rename = std::function<bool(const QString& from, const QString& to)>;

    // `settings` is the normalised `localDeleteSettings` object; `today` the local date that
    // names the month folder.
    LocalDeletion(const QString& root, const QJsonObject& settings,
                  const QDate& today = QDate::currentDate(), Rename rename = {});

    // The outcome {status, path, relativePath}: status "KEPT", "REMOVED", "MOVED_TO_DELETED" or
    // "MISSING"; `path` is where the file is now. Throws VANTRO_SIGN_PATH_OUTSIDE_ROOT,
    // VANTRO_SIGN_LOCAL_DELETE_FAILED or VANTRO_SIGN_LOCAL_MOVE_TO_DELETED_FAILED.
    OrderedObject removeLocalFile(const QString& path) const;

    // Where `path` goes in the deleted-files folder: <folder>[/yyyy-MM]/<former folders>/<name>,
    // every part cleaned and cut to 80 characters, the name made unique.
    QString deletedTargetPath(const QString& path) const;

private:
    OrderedObject outcome(const char* status, const QString& path) const;
    void moveToDeleted(const QString& path, const QString& target) const;

    QString m_root;
    QString m_action;
    QString m_folderName;
    bool m_groupByMonth = true;
    QDate m_today;
    Rename m_rename;
};

} // namespace vantro
