#include "store/RecordJson.h"

#include <QSqlQuery>
#include <QSqlRecord>
#include <QVariant>

namespace vantro::records {

namespace {

void dropEmpty(QJsonObject& object, std::initializer_list<const char*> keys)
{
    for (const char* key : keys) {
        const auto it = object.find(QLatin1String(key));
        if (it == object.end())
            continue;
        const QJsonValue value = it.value();
        if (value.isNull() || (value.isString() && value.toString().isEmpty()))
            object.erase(it);
    }
}

QJsonValue columnValue(const QVariant& value)
{
    if (value.isNull())
        return QJsonValue::Null;
    switch (value.typeId()) {
    case QMetaType::LongLong:
    case QMetaType::Int:
        return QJsonValue(value.toLongLong());
    case QMetaType::Double:
        return QJsonValue(value.toDouble());
    default:
        return QJsonValue(value.toString());
    }
}

} // namespace

RowReader::RowReader(const QSqlRecord& record, int first, int count)
    : m_first(first)
{
    const int end = count < 0 ? record.count() : first + count;
    QStringList columns;
    for (int i = first; i < end; ++i) {
        columns.append(record.fieldName(i));
        m_layout.insert(columns.last(), QJsonValue::Null);
    }
    const QStringList keys = m_layout.keys();
    for (const QString& column : columns)
        m_slots.append(keys.indexOf(column));
}

QJsonObject RowReader::read(const QSqlQuery& query) const
{
    QJsonObject row = m_layout;
    const QJsonObject::iterator first = row.begin();
    for (qsizetype i = 0; i < m_slots.size(); ++i)
        (first + m_slots.at(i)).value() = columnValue(query.value(m_first + int(i)));
    return row;
}

QJsonObject versionJson(QJsonObject row)
{
    dropEmpty(row, {"server_version_id"});
    return row;
}

QJsonObject documentJson(QJsonObject row, QJsonObject currentVersion)
{
    if (!currentVersion.isEmpty())
        row.insert(QLatin1String("current_version"), versionJson(std::move(currentVersion)));
    dropEmpty(row, {"server_document_id", "active_flow_id", "missing_since", "hidden_at",
                    "purge_after", "purged_at"});
    if (row.value(QLatin1String("cloud_state")).toString().isEmpty())
        row.insert(QLatin1String("cloud_state"), QStringLiteral("LOCAL"));
    return row;
}

QJsonObject jobJson(QJsonObject row)
{
    dropEmpty(row, {"server_job_id", "server_document_id", "result_version_id"});
    return row;
}

QJsonObject mirrorItemJson(QJsonObject row)
{
    dropEmpty(row, {"local_version_id", "local_path", "mirrored_sha256", "server_job_id"});
    return row;
}

} // namespace vantro::records
