// The order-keeping serialiser must write scalars exactly as QJsonDocument does, whichever
// path (direct or through a document) a value takes.
#include "app/OrderedJson.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QtTest>

#include <limits>

using namespace vantro;

namespace {

QByteArray viaDocument(const QVariant& value)
{
    const QByteArray array =
        QJsonDocument(QJsonArray{QJsonValue::fromVariant(value)}).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2);
}

} // namespace

class OrderedJsonTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void scalarsMatchTheDocumentWriter_data()
    {
        QTest::addColumn<QVariant>("value");
        QTest::newRow("plain text") << QVariant(QStringLiteral("sign:getStatus"));
        QTest::newRow("empty text") << QVariant(QString());
        QTest::newRow("quote") << QVariant(QStringLiteral("a\"b"));
        QTest::newRow("backslash") << QVariant(QStringLiteral("C:\\Users\\x"));
        QTest::newRow("control characters") << QVariant(QStringLiteral("a\nb\tc\x01"));
        QTest::newRow("delete character") << QVariant(QStringLiteral("a\x7f"));
        QTest::newRow("non-ASCII") << QVariant(QStringLiteral("Pasirašymo šaknis ✓"));
        QTest::newRow("line separator") << QVariant(QString(QChar(0x2028)));
        QTest::newRow("zero") << QVariant(0);
        QTest::newRow("negative int") << QVariant(std::numeric_limits<int>::min());
        QTest::newRow("unsigned") << QVariant(std::numeric_limits<uint>::max());
        QTest::newRow("large long long") << QVariant(std::numeric_limits<qlonglong>::max());
        QTest::newRow("beyond double precision") << QVariant(qlonglong(1LL << 53) + 1);
        QTest::newRow("double") << QVariant(1.5);
    }

    void scalarsMatchTheDocumentWriter()
    {
        QFETCH(QVariant, value);
        const QByteArray expected = viaDocument(value);
        QCOMPARE(toCompactJson(value), expected);
        QCOMPARE(OrderedObject({{QStringLiteral("k"), value}}).toJson(),
                 QByteArray("{\"k\":" + expected + "}"));
    }

    void keysKeepTheirOrderAndEscaping()
    {
        const OrderedObject object{{QStringLiteral("z"), 1},
                                   {QStringLiteral("a\"b"), true},
                                   {QStringLiteral("m"), QVariantList{QStringLiteral("x"), 2}}};
        QCOMPARE(object.toJson(), QByteArray("{\"z\":1,\"a\\\"b\":true,\"m\":[\"x\",2]}"));
    }
};

QTEST_GUILESS_MAIN(OrderedJsonTest)
#include "tst_ordered_json.moc"
