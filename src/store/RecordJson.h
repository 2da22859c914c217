#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QStringList>

class QSqlQuery;
class QSqlRecord;

// Shapes database rows into the JSON the page and the other subsystems receive: keys are the
// column names, NULL is null, integers are numbers, everything else text; optional ids and
// times are left out rather than sent empty.
namespace vantro::records {

// Turns the rows of one result set into objects. The keys are laid out once; each row copies
// that layout and fills the values in place instead of searching the object for every key,
// which matters for lists of thousands of documents.
class RowReader
{
public:
    explicit RowReader(const QSqlRecord& record, int first = 0, int count = -1);
    QJsonObject read(const QSqlQuery& query) const;

private:
    QJsonObject m_layout;
    int m_first = 0;
    QList<qsizetype> m_slots; // column m_first + i -> position of its key in m_layout
};

QJsonObject versionJson(QJsonObject row);
// `currentVersion` is the version row whose id is the document's current_version_id, or empty
// (a placeholder whose file is not mirrored yet has none).
QJsonObject documentJson(QJsonObject row, QJsonObject currentVersion);
QJsonObject jobJson(QJsonObject row);
QJsonObject mirrorItemJson(QJsonObject row);

template <typename Shape> QJsonArray shapedArray(const QList<QJsonObject>& rows, Shape shape)
{
    QJsonArray array;
    for (const QJsonObject& row : rows)
        array.append(shape(row));
    return array;
}

} // namespace vantro::records
