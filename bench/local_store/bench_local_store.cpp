// Figures of the local store against command-line references measured in the same run:
//   import_50mib_outside  importFiles() of a 50 MiB file from outside the root
//                         vs `cp` + `openssl dgst -sha256` of the same file
//   import_50mib_inside   importFiles() of a 50 MiB file already inside the root
//                         vs `openssl dgst -sha256`
//   list_documents_10k    listDocuments() over 10,000 documents serialised to JSON text
//                         vs the sqlite3 shell printing the documents-with-versions join as JSON
// Each side runs several times, interleaved, after one warm-up run each; medians are compared.
#include "app/AppState.h"
#include "BenchSupport.h"
#include "store/LocalStore.h"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QProcess>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QUuid>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>

using namespace vantro;

namespace {

using benchsupport::compare;
using benchsupport::runTool;

constexpr qint64 kFileSize = 50 * 1024 * 1024;
constexpr int kDocuments = 10000;

// The default document listing as the sqlite3 shell prints it: the documents with their current
// version, optional keys left out through JSON merge-patch nulls, newest first.
const QString kSameDocumentsAsJson = QStringLiteral(R"(
SELECT json_group_array(json(document)) FROM (
  SELECT json_patch(json_object(
      'id', d.id, 'title', d.title, 'original_name', d.original_name, 'status', d.status,
      'source', d.source, 'local_state', d.local_state, 'current_version_id', d.current_version_id,
      'last_error', d.last_error, 'created_at', d.created_at, 'updated_at', d.updated_at,
      'cloud_state', COALESCE(NULLIF(d.cloud_state, ''), 'LOCAL')),
    json_object(
      'server_document_id', NULLIF(d.server_document_id, ''),
      'active_flow_id', NULLIF(d.active_flow_id, ''),
      'missing_since', NULLIF(d.missing_since, ''), 'hidden_at', NULLIF(d.hidden_at, ''),
      'purge_after', NULLIF(d.purge_after, ''), 'purged_at', NULLIF(d.purged_at, ''),
      'current_version', CASE WHEN v.id IS NULL THEN NULL ELSE json_patch(json_object(
        'id', v.id, 'document_id', v.document_id, 'kind', v.kind, 'path', v.path,
        'relative_path', v.relative_path, 'sha256', v.sha256, 'size_bytes', v.size_bytes,
        'mime_type', v.mime_type, 'created_at', v.created_at),
        json_object('server_version_id', NULLIF(v.server_version_id, ''))) END)) AS document
  FROM local_documents d
  LEFT JOIN local_versions v ON v.id = d.current_version_id AND v.document_id = d.id
  WHERE d.status <> 'MISSING' AND COALESCE(d.purged_at, '') = ''
  ORDER BY d.updated_at DESC, d.created_at DESC, d.rowid DESC))");

class Workspace
{
public:
    Workspace()
        : m_state(m_dir.filePath(QStringLiteral("device.json")))
    {
        m_state.setLocalRoot(root());
        QDir().mkpath(root());
    }
    QString root() const { return m_dir.filePath(QStringLiteral("root")); }
    QString path(const QString& relative) const { return m_dir.filePath(relative); }
    LocalStore& store()
    {
        if (!m_store)
            m_store = std::make_unique<LocalStore>(&m_state, path(QStringLiteral("local.db")));
        return *m_store;
    }

private:
    QTemporaryDir m_dir;
    AppState m_state;
    std::unique_ptr<LocalStore> m_store;
};

std::pair<double, double> importOutside(Workspace& ws)
{
    const QString source =
        benchsupport::writeRandomFile(ws.path(QStringLiteral("outside/Sutartis.pdf")), kFileSize);
    const QString copy = ws.path(QStringLiteral("reference/Sutartis.pdf"));
    QDir().mkpath(QFileInfo(copy).absolutePath());
    ws.store().open();
    return compare(
        [&] {
            const QJsonArray result = ws.store().importFiles({source});
            // Same name every time, like the reference's copy.
            QFile::remove(ws.root() + QLatin1Char('/') +
                          result.at(0).toObject().value(QStringLiteral("relativePath")).toString());
        },
        [&] {
            runTool(QStringLiteral("cp"), {source, copy});
            runTool(QStringLiteral("openssl"),
                    {QStringLiteral("dgst"), QStringLiteral("-sha256"), copy});
            QFile::remove(copy);
        });
}

std::pair<double, double> importInside(Workspace& ws)
{
    const QString file = benchsupport::writeRandomFile(
        ws.root() + QStringLiteral("/Projektai/Sutartis.pdf"), kFileSize);
    ws.store().open();
    return compare([&] { ws.store().importFiles({file}); },
                   [&] {
                       runTool(QStringLiteral("openssl"),
                               {QStringLiteral("dgst"), QStringLiteral("-sha256"), file});
                   });
}

void fillDocuments(const QString& databaseFile)
{
    const QString name = QStringLiteral("bench-fill");
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name);
        db.setDatabaseName(databaseFile);
        if (!db.open())
            qFatal("cannot open %s", qPrintable(databaseFile));
        db.transaction();
        QSqlQuery document(db);
        document.prepare(QStringLiteral(
            "INSERT INTO local_documents (id, title, original_name, status, source, local_state, "
            "current_version_id, server_document_id, active_flow_id, last_error, created_at, "
            "updated_at) VALUES (?, ?, ?, ?, 'LOCAL_IMPORT', ?, ?, ?, NULL, '', ?, ?)"));
        QSqlQuery version(db);
        version.prepare(QStringLiteral(
            "INSERT INTO local_versions (id, document_id, kind, path, relative_path, sha256, "
            "size_bytes, mime_type, server_version_id, created_at) VALUES (?, ?, 'ORIGINAL', ?, ?, "
            "?, ?, 'application/pdf', ?, ?)"));
        const QDateTime start(QDate(2025, 1, 1), QTime(8, 0), Qt::UTC);
        for (int i = 0; i < kDocuments; ++i) {
            const QString id = QUuid::createUuid().toString(QUuid::WithoutBraces);
            const QString versionId = QUuid::createUuid().toString(QUuid::WithoutBraces);
            const QString time = start.addSecs(i * 37).toString(Qt::ISODateWithMs);
            const QString name0 = QStringLiteral("Sutartis Nr. %1 su UAB Klientas.pdf").arg(i);
            const QString relative = QStringLiteral("Originalai/2025-%1/%2")
                                         .arg(1 + i % 12, 2, 10, QLatin1Char('0'))
                                         .arg(name0);
            const bool uploaded = i % 3 == 0;
            const QVariant serverId =
                uploaded ? QVariant(QStringLiteral("srv-%1").arg(i)) : QVariant();
            document.addBindValue(id);
            document.addBindValue(name0.chopped(4));
            document.addBindValue(name0);
            document.addBindValue(uploaded ? QStringLiteral("UPLOADED") : QStringLiteral("LOCAL"));
            document.addBindValue(uploaded ? QStringLiteral("SERVER_TRANSIENT")
                                           : QStringLiteral("LOCAL_ONLY"));
            document.addBindValue(versionId);
            document.addBindValue(serverId);
            document.addBindValue(time);
            document.addBindValue(time);
            version.addBindValue(versionId);
            version.addBindValue(id);
            version.addBindValue(QStringLiteral("/home/user/Documents/Vantro Sign/") + relative);
            version.addBindValue(relative);
            version.addBindValue(QString::fromLatin1(
                QCryptographicHash::hash(id.toUtf8(), QCryptographicHash::Sha256).toHex()));
            version.addBindValue(100000 + i);
            version.addBindValue(uploaded ? QVariant(QStringLiteral("sv-%1").arg(i)) : QVariant());
            version.addBindValue(time);
            if (!document.exec() || !version.exec())
                qFatal("fill failed: %s %s", qPrintable(document.lastError().text()),
                       qPrintable(version.lastError().text()));
        }
        db.commit();
    }
    QSqlDatabase::removeDatabase(name);
}

std::pair<double, double> listDocuments(Workspace& ws)
{
    const QString file = ws.path(QStringLiteral("local.db"));
    ws.store().open();
    fillDocuments(file);
    QByteArray ours;
    const auto result = compare(
        [&] {
            LocalStore store(nullptr, file);
            ours = QJsonDocument(store.listDocuments({})).toJson(QJsonDocument::Compact);
        },
        [&] {
            runTool(QStringLiteral("sqlite3"), {file, kSameDocumentsAsJson});
        });
    // Both sides must have printed the same documents, or the ratio means nothing.
    const QJsonArray reference =
        QJsonDocument::fromJson(
            runTool(QStringLiteral("sqlite3"), {file, kSameDocumentsAsJson}, true))
            .array();
    if (reference.size() != kDocuments || QJsonDocument::fromJson(ours).array() != reference)
        qFatal("the listing and the sqlite3 reference differ");
    return result;
}

} // namespace

int main(int argc, char** argv)
{
    return benchsupport::runFigures<Workspace>(
        argc, argv,
        {{QStringLiteral("import_50mib_outside"), {1.3, importOutside}},
         {QStringLiteral("import_50mib_inside"), {1.3, importInside}},
         {QStringLiteral("list_documents_10k"), {2.0, listDocuments}}});
}
