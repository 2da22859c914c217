#pragma once

#include "app/OrderedJson.h"

#include <QDateTime>
#include <QStringList>

namespace vantro {

class LocalStore;

// Brings the database in line with the local root: imports files that appeared, follows files
// renamed or moved (recognised by content), restores documents whose file came back, marks
// documents whose file vanished as missing and deletes missing rows past their purge time.
class LocalRootReconciler
{
public:
    explicit LocalRootReconciler(LocalStore& store);

    // One run. The summary's keys, in order: root, imported, renamed, restored, missing, purged,
    // skippedTemp, skippedPlaceholders, errors. Scan problems are listed under `errors`; only a
    // database failure throws (changes of the phases already committed remain).
    OrderedObject run();
    // The folders the last run's walk entered, the root first (the window watches them).
    QStringList walkedFolders() const { return m_walkedFolders; }

    // The clock the missing-document policy and the purge read (tests move it forward).
    void setNow(const QDateTime& utc) { m_now = utc; }

    static constexpr int kPurgeAfterDays = 30;

private:
    LocalStore& m_store;
    QDateTime m_now;
    QStringList m_walkedFolders;
};

} // namespace vantro
