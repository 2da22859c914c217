// The order-keeping serialiser must write scalars exactly as QJsonDocument does, whichever
// path (direct or through a document) a value takes.
#include "app/OrderedJson.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QtTest>

#include <limits>

using namespace vantro;

class OrderedJsonTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void scalarsMatchTheDocumentWriter_data()
    {
        QTest::addColumn<QVariant>("value");
        QTest::newRow("quote and backslash") << QVariant("C:\\a\"b");
        QTest::newRow("control characters") << QVariant("a\nb\tc\x01\x7f");
        QTest::newRow("non-ASCII") << QVariant(QStringLiteral("Pasirašymo šaknis ✓"));
        QTest::newRow("line separator") << QVariant(QString(QChar(0x2028)));
        QTest::newRow("negative int") << QVariant(std::numeric_limits<int>::min());
        QTest::newRow("unsigned") << QVariant(std::numeric_limits<uint>::max());
        QTest::newRow("large long long") << QVariant(std::numeric_limits<qlonglong>::max());
        QTest::newRow("beyond double precision") << QVariant(qlonglong(1LL << 53) + 1);
        QTest::newRow("double") << QVariant(1.5);
    }
    void scalarsMatchTheDocumentWriter()
    {
        QFETCH(QVariant, value);
        const QJsonArray array{QJsonValue::fromVariant(value)};
        const QByteArray expected =
            QJsonDocument(array).toJson(QJsonDocument::Compact).chopped(1).mid(1);
        QCOMPARE(toCompactJson(value), expected);
        QCOMPARE(OrderedObject({{"k", value}}).toJson(), "{\"k\":" + expected + "}");
    }

    void keysKeepTheirOrderAndEscaping()
    {
        const OrderedObject object{{"z", 1}, {"a\"b", true}, {"m", QVariantList{"x", 2}}};
        QCOMPARE(object.toJson(), QByteArray("{\"z\":1,\"a\\\"b\":true,\"m\":[\"x\",2]}"));
    }
};

QTEST_GUILESS_MAIN(OrderedJsonTest)
#include "tst_ordered_json.moc"
