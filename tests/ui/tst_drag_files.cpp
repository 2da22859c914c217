// Which drags count as dropped files: only drags made entirely of local files.
#include "ui/WebHost.h"

#include <QDir>
#include <QMimeData>
#include <QtTest>

using namespace vantro;

class DragFilesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void localFiles_data()
    {
        QTest::addColumn<QList<QUrl>>("urls");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QStringList>("files");
        const QUrl a = QUrl::fromLocalFile(QStringLiteral("/tmp/a b.pdf"));
        const QUrl b = QUrl::fromLocalFile(QStringLiteral("/tmp/c.txt"));
        QTest::newRow("local files") << QList<QUrl>{a, b} << QString()
                                     << QStringList{QDir::toNativeSeparators("/tmp/a b.pdf"),
                                                    QDir::toNativeSeparators("/tmp/c.txt")};
        QTest::newRow("one web address among files")
            << QList<QUrl>{a, QUrl(QStringLiteral("https://example.test/x.pdf"))} << QString()
            << QStringList();
        QTest::newRow("text only")
            << QList<QUrl>{} << QStringLiteral("/tmp/a.pdf") << QStringList();
    }

    void localFiles()
    {
        QFETCH(QList<QUrl>, urls);
        QFETCH(QString, text);
        QFETCH(QStringList, files);
        QMimeData mime;
        if (!urls.isEmpty())
            mime.setUrls(urls);
        if (!text.isEmpty())
            mime.setText(text);
        QCOMPARE(WebHost::localFiles(&mime), files);
        QCOMPARE(WebHost::localFiles(nullptr), QStringList());
    }
};

QTEST_GUILESS_MAIN(DragFilesTest)
#include "tst_drag_files.moc"
