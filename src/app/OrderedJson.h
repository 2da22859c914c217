#pragma once

#include <QByteArray>
#include <QJsonValue>
#include <QList>
#include <QMetaType>
#include <QPair>
#include <QString>
#include <QVariant>

namespace vantro {

// A JSON object that keeps the order in which keys were inserted. QJsonObject and QVariantMap
// sort their keys; several objects the page receives (status, helper runtime, update status,
// capabilities) have a fixed key order, so they are built with this type.
class OrderedObject
{
public:
    OrderedObject() = default;
    OrderedObject(std::initializer_list<QPair<QString, QVariant>> items);

    // Replaces the value in place when the key exists, otherwise appends it.
    OrderedObject& insert(const QString& key, const QVariant& value);
    bool contains(const QString& key) const;
    QVariant value(const QString& key, const QVariant& fallback = {}) const;
    QStringList keys() const;
    int size() const { return int(m_items.size()); }
    bool isEmpty() const { return m_items.isEmpty(); }
    const QList<QPair<QString, QVariant>>& items() const { return m_items; }

    QVariant toVariant() const;
    // Plain map view (loses the order); handy for tests and for code that only reads values.
    QVariantMap toMap() const;
    QByteArray toJson() const;

    bool operator==(const OrderedObject& other) const { return m_items == other.m_items; }

private:
    QList<QPair<QString, QVariant>> m_items;
};

// Serialises a variant tree as compact JSON. Understands OrderedObject (order kept), QVariantMap
// and QVariantHash (sorted keys), lists, QStringList, QJsonValue/Object/Array and scalars.
QByteArray toCompactJson(const QVariant& value);

// A service identifier as text, also when the service sends a number.
QString idText(const QJsonValue& value);

// Reads an object key from either an OrderedObject or a map held in a variant.
QVariant variantMember(const QVariant& object, const QString& key);

} // namespace vantro

Q_DECLARE_METATYPE(vantro::OrderedObject)
