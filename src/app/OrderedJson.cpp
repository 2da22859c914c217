#include "app/OrderedJson.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

#include <algorithm>

namespace vantro {

OrderedObject::OrderedObject(std::initializer_list<QPair<QString, QVariant>> items)
{
    for (const auto& item : items)
        insert(item.first, item.second);
}

OrderedObject& OrderedObject::insert(const QString& key, const QVariant& value)
{
    for (auto& item : m_items) {
        if (item.first == key) {
            item.second = value;
            return *this;
        }
    }
    m_items.append({key, value});
    return *this;
}

bool OrderedObject::contains(const QString& key) const
{
    for (const auto& item : m_items)
        if (item.first == key)
            return true;
    return false;
}

QVariant OrderedObject::value(const QString& key, const QVariant& fallback) const
{
    for (const auto& item : m_items)
        if (item.first == key)
            return item.second;
    return fallback;
}

QStringList OrderedObject::keys() const
{
    QStringList out;
    for (const auto& item : m_items)
        out << item.first;
    return out;
}

QVariant OrderedObject::toVariant() const
{
    return QVariant::fromValue(*this);
}

QVariantMap OrderedObject::toMap() const
{
    QVariantMap out;
    for (const auto& item : m_items)
        out.insert(item.first, item.second);
    return out;
}

QByteArray OrderedObject::toJson() const
{
    return toCompactJson(toVariant());
}

namespace {

bool needsNoEscaping(const QString& text)
{
    return std::all_of(text.begin(), text.end(), [](QChar c) {
        return c.unicode() >= 0x20 && c.unicode() < 0x7f && c != QLatin1Char('"') &&
               c != QLatin1Char('\\');
    });
}

// One JSON string literal, escaped exactly as QJsonDocument would. Plain ASCII text (keys and
// most values) is written directly: going through a document costs microseconds per string.
QByteArray quoted(const QString& text)
{
    if (needsNoEscaping(text))
        return '"' + text.toLatin1() + '"';
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2);
}

QByteArray scalarJson(const QJsonValue& value)
{
    const QByteArray array = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2);
}

void write(QByteArray& out, const QVariant& value);

template <typename Pairs> void writeObject(QByteArray& out, const Pairs& pairs)
{
    out += '{';
    bool first = true;
    for (const auto& pair : pairs) {
        if (!first)
            out += ',';
        first = false;
        out += quoted(pair.first);
        out += ':';
        write(out, pair.second);
    }
    out += '}';
}

template <typename Map> QList<QPair<QString, QVariant>> mapPairs(const Map& map)
{
    QList<QPair<QString, QVariant>> pairs;
    QStringList keys = map.keys();
    keys.sort();
    for (const auto& key : keys)
        pairs.append({key, map.value(key)});
    return pairs;
}

void writeList(QByteArray& out, const QVariantList& list)
{
    out += '[';
    for (int i = 0; i < list.size(); ++i) {
        if (i)
            out += ',';
        write(out, list.at(i));
    }
    out += ']';
}

void write(QByteArray& out, const QVariant& value)
{
    const int type = value.userType();
    if (type == qMetaTypeId<OrderedObject>()) {
        writeObject(out, value.value<OrderedObject>().items());
    } else if (type == QMetaType::QVariantMap) {
        writeObject(out, mapPairs(value.toMap()));
    } else if (type == QMetaType::QVariantHash) {
        writeObject(out, mapPairs(value.toHash()));
    } else if (type == QMetaType::QVariantList || type == QMetaType::QStringList) {
        writeList(out, value.toList());
    } else if (type == QMetaType::QJsonObject || type == QMetaType::QJsonArray ||
               type == QMetaType::QJsonValue || type == QMetaType::QJsonDocument) {
        write(out, QJsonValue::fromVariant(value).toVariant());
    } else if (!value.isValid() || value.isNull()) {
        out += "null";
    } else if (type == QMetaType::Bool) {
        out += value.toBool() ? "true" : "false";
    } else if (type == QMetaType::QString || type == QMetaType::QByteArray ||
               type == QMetaType::QUrl || type == QMetaType::QDateTime) {
        out += quoted(value.toString());
    } else if (type == QMetaType::Int || type == QMetaType::UInt || type == QMetaType::LongLong) {
        out += QByteArray::number(value.toLongLong()); // what the document writes for integers
    } else {
        out += scalarJson(QJsonValue::fromVariant(value));
    }
}

} // namespace

QByteArray toCompactJson(const QVariant& value)
{
    QByteArray out;
    write(out, value);
    return out;
}

QVariant variantMember(const QVariant& object, const QString& key)
{
    if (object.userType() == qMetaTypeId<OrderedObject>())
        return object.value<OrderedObject>().value(key);
    return object.toMap().value(key);
}

QString idText(const QJsonValue& value)
{
    if (value.isDouble())
        return QString::number(value.toInteger());
    return value.toString();
}

} // namespace vantro
