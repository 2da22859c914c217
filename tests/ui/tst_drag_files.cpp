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
    void localFiles()
    {
        const QUrl a = QUrl::fromLocalFile("/tmp/a b.pdf"), b = QUrl::fromLocalFile("/tmp/c.txt");
        QMimeData files, mixed, text;
        files.setUrls({a, b});
        mixed.setUrls({a, QUrl("https://example.test/x.pdf")});
        text.setText("/tmp/a.pdf");
        QCOMPARE(WebHost::localFiles(&files),
                 (QStringList{QDir::toNativeSeparators("/tmp/a b.pdf"),
                              QDir::toNativeSeparators("/tmp/c.txt")}));
        QCOMPARE(WebHost::localFiles(&mixed), QStringList());
        QCOMPARE(WebHost::localFiles(&text), QStringList());
        QCOMPARE(WebHost::localFiles(nullptr), QStringList());
    }
};

QTEST_GUILESS_MAIN(DragFilesTest)
#include "tst_drag_files.moc"
