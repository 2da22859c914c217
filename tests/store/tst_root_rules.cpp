// Naming and layout rules of the local root.
#include "store/RootRules.h"
#include "StoreTestSupport.h"

#include <QtTest>

using namespace vantro::rootrules;
using storetest::codeOf;

class RootRulesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanFileName_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("cleaned");

        const QString fallback = QStringLiteral("Vantro_dokumentas");
        QTest::newRow("trim, replace, strip trailing dot") << "  a<b>:c.pdf.  "
                                                           << "a_b__c.pdf";
        QTest::newRow("every forbidden character") << "1<2>3:4\"5/6\\7|8?9*0.pdf"
                                                   << "1_2_3_4_5_6_7_8_9_0.pdf";
        QTest::newRow("control characters") << QStringLiteral("a\tb\x01"
                                                              "c\x1f.pdf")
                                            << "a_b_c_.pdf";
        QTest::newRow("delete character kept")
            << QStringLiteral("a\x7f.pdf") << QStringLiteral("a\x7f.pdf");
        QTest::newRow("only dots") << "...." << fallback;
        QTest::newRow("only spaces") << "    " << fallback;
        QTest::newRow("dots and spaces") << " . . " << fallback;
        QTest::newRow("empty") << "" << fallback;
        QTest::newRow("trailing dots and spaces mixed") << "Sutartis . ."
                                                        << "Sutartis";
        QTest::newRow("inner dots kept") << "Sutartis.signed.pdf"
                                         << "Sutartis.signed.pdf";
        QTest::newRow("Lithuanian letters kept")
            << QString::fromUtf8("Sąskaita ž.pdf") << QString::fromUtf8("Sąskaita ž.pdf");
        QTest::newRow("300 characters cut to 180 regardless of extension")
            << QString(296, QLatin1Char('x')) + QStringLiteral(".pdf")
            << QString(180, QLatin1Char('x'));
        QTest::newRow("cut may end in a dot again")
            << QString(179, QLatin1Char('a')) + QStringLiteral(".pdf")
            << QString(179, QLatin1Char('a')) + QStringLiteral(".");
        QTest::newRow("cut never splits a surrogate pair")
            << QString(179, QLatin1Char('a')) + QString::fromUtf8("\xF0\x9F\x98\x80") +
                   QStringLiteral(".pdf")
            << QString(179, QLatin1Char('a'));
        QTest::newRow("slash-only name becomes underscore") << "/"
                                                            << "_";
    }
    void cleanFileName()
    {
        QFETCH(QString, name);
        QTEST(vantro::rootrules::cleanFileName(name, QStringLiteral("Vantro_dokumentas")),
              "cleaned");
    }

    void cleanFileNameUsesCallersFallback()
    {
        QCOMPARE(vantro::rootrules::cleanFileName(QStringLiteral(".."), QStringLiteral("kita")),
                 QStringLiteral("kita"));
        QCOMPARE(vantro::rootrules::cleanFileName(QStringLiteral(" "), QString()), QString());
    }

    void relativePathInRoot_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("relative");

        QTest::newRow("file in root") << "R/Sutartis.pdf"
                                      << "Sutartis.pdf";
        QTest::newRow("nested") << "R/Projektai/2026/a.pdf"
                                << "Projektai/2026/a.pdf";
        QTest::newRow("outside") << "other/a.pdf"
                                 << "";
        QTest::newRow("sibling sharing the prefix") << "R2/a.pdf"
                                                    << "";
        QTest::newRow("name starting with two dots counts as outside") << "R/..notes.pdf"
                                                                       << "";
        QTest::newRow("dot-dot leaving the root") << "R/A/../../other/a.pdf"
                                                  << "";
        QTest::newRow("dot-dot staying inside") << "R/A/../b.pdf"
                                                << "b.pdf";
        QTest::newRow("parent of the root") << ""
                                            << "";
    }
    void relativePathInRoot()
    {
        QFETCH(QString, path);
        QTemporaryDir dir;
        const QString root = dir.filePath(QStringLiteral("R"));
        const QString absolute = path.isEmpty() ? dir.path() : dir.filePath(path);
        QTEST(vantro::rootrules::relativePathInRoot(root, absolute), "relative");
    }

    void relativePathNeedsRootAndPath()
    {
        QCOMPARE(vantro::rootrules::relativePathInRoot(QString(), QStringLiteral("/a/b.pdf")),
                 QString());
        QCOMPARE(vantro::rootrules::relativePathInRoot(QStringLiteral("/a"), QString()), QString());
    }

    void titleFromFile_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("title");

        QTest::newRow("simple") << "/d/Sutartis.pdf"
                                << "Sutartis";
        QTest::newRow("before the first dot") << "/d/Sutartis.signed.pdf"
                                              << "Sutartis";
        QTest::newRow("trimmed") << "/d/  Aktas .pdf"
                                 << "Aktas";
        QTest::newRow("no suffix") << "/d/README"
                                   << "README";
        QTest::newRow("nothing before the dot") << "/d/.pdf"
                                                << "Dokumentas";
        QTest::newRow("only spaces before the dot") << "/d/   .pdf"
                                                    << "Dokumentas";
    }
    void titleFromFile()
    {
        QFETCH(QString, path);
        QTEST(vantro::rootrules::titleFromFile(path), "title");
    }

    void uniquePath_data()
    {
        QTest::addColumn<QStringList>("taken");
        QTest::addColumn<QString>("wanted");
        QTest::addColumn<QString>("result");

        QTest::newRow("free") << QStringList{} << "Sutartis.pdf"
                              << "Sutartis.pdf";
        QTest::newRow("taken once") << QStringList{"Sutartis.pdf"} << "Sutartis.pdf"
                                    << "Sutartis_2.pdf";
        QTest::newRow("no _1, next is _3")
            << QStringList{"Sutartis.pdf", "Sutartis_2.pdf"} << "Sutartis.pdf"
            << "Sutartis_3.pdf";
        QTest::newRow("first gap wins")
            << QStringList{"Sutartis.pdf", "Sutartis_3.pdf"} << "Sutartis.pdf"
            << "Sutartis_2.pdf";
        QTest::newRow("suffix starts at the first dot")
            << QStringList{"Sutartis.signed.pdf"} << "Sutartis.signed.pdf"
            << "Sutartis_2.signed.pdf";
        QTest::newRow("no suffix") << QStringList{"README"} << "README"
                                   << "README_2";
        QTest::newRow("a folder also takes the name")
            << QStringList{"Sutartis.pdf/"} << "Sutartis.pdf"
            << "Sutartis_2.pdf";
        QTest::newRow("dangling link takes the name")
            << QStringList{"Sutartis.pdf@"} << "Sutartis.pdf"
            << "Sutartis_2.pdf";
    }
    void uniquePath()
    {
        QFETCH(QStringList, taken);
        QFETCH(QString, wanted);
        QFETCH(QString, result);
        QTemporaryDir dir;
        for (const QString& name : taken)
            occupy(dir, name);
        QCOMPARE(vantro::rootrules::uniquePath(dir.filePath(wanted)), dir.filePath(result));
    }

    void uniquePathGivesUpAfterHundredAttempts()
    {
        QTemporaryDir dir;
        occupy(dir, QStringLiteral("Sutartis.pdf"));
        for (int i = 2; i <= 99; ++i)
            occupy(dir, QStringLiteral("Sutartis_%1.pdf").arg(i));
        const QString wanted = dir.filePath(QStringLiteral("Sutartis.pdf"));
        QCOMPARE(vantro::rootrules::uniquePath(wanted),
                 dir.filePath(QStringLiteral("Sutartis_100.pdf")));
        occupy(dir, QStringLiteral("Sutartis_100.pdf"));
        QCOMPARE(codeOf([&] { vantro::rootrules::uniquePath(wanted); }),
                 QStringLiteral("VANTRO_SIGN_LOCAL_FILE_UNIQUE_PATH_EXHAUSTED"));
    }

    void supportedDocumentType_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<bool>("supported");

        for (const char* suffix : {"pdf", "doc", "docx", "odt", "xls", "xlsx", "txt", "png", "jpg",
                                   "jpeg", "adoc", "asice"})
            QTest::addRow("%s", suffix) << QStringLiteral("/d/a.") + QLatin1String(suffix) << true;
        QTest::newRow("upper case") << "/d/A.PDF" << true;
        QTest::newRow("last suffix counts") << "/d/a.tar.pdf" << true;
        QTest::newRow("pptx") << "/d/a.pptx" << false;
        QTest::newRow("ppt") << "/d/a.ppt" << false;
        QTest::newRow("odp") << "/d/a.odp" << false;
        QTest::newRow("asic without e") << "/d/a.asic" << false;
        QTest::newRow("executable after pdf") << "/d/a.pdf.exe" << false;
        QTest::newRow("no suffix, name pdf") << "/d/pdf" << false;
    }
    void supportedDocumentType()
    {
        QFETCH(QString, path);
        QTEST(isSupportedDocumentType(path), "supported");
    }

    void temporarySuffix_data()
    {
        QTest::addColumn<QString>("suffix");
        QTest::addColumn<bool>("temporary");
        for (const char* suffix : {"tmp", "temp", "partial", "crdownload", "download", "TMP"})
            QTest::addRow("%s", suffix) << QString::fromLatin1(suffix) << true;
        QTest::newRow("pdf") << "pdf" << false;
        QTest::newRow("with dot") << ".tmp" << false;
        QTest::newRow("downloads") << "downloads" << false;
    }
    void temporarySuffix()
    {
        QFETCH(QString, suffix);
        QTEST(isTemporarySuffix(suffix), "temporary");
    }

    void skippedDirectoryName_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("skipped");
        for (const char* name : {"tmp", "temp", ".tmp", ".temp", "cache", ".cache", "previews",
                                 "preview-cache", ".vantro-temp"})
            QTest::addRow("%s", name) << QString::fromLatin1(name) << true;
        QTest::newRow("trimmed and lower-cased") << "  Cache " << true;
        QTest::newRow("cached") << "cached" << false;
        QTest::newRow("preview") << "preview" << false;
        QTest::newRow("Pasirasyta is not a temporary folder") << "Pasirasyta" << false;
    }
    void skippedDirectoryName()
    {
        QFETCH(QString, name);
        QTEST(isSkippedDirectoryName(name), "skipped");
    }

    void skippedRelativePath_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("deletedFolder");
        QTest::addColumn<bool>("skipped");

        const QString deleted = QStringLiteral("Istrinta");
        QTest::newRow("plain document") << "Sutartis.pdf" << deleted << false;
        QTest::newRow("signed folder") << "Pasirasyta/x.pdf" << deleted << true;
        QTest::newRow("signed folder upper case") << "PASIRASYTA/x.pdf" << deleted << true;
        QTest::newRow("signed folder with Lithuanian letter")
            << QString::fromUtf8("Pasirašyta/x.pdf") << deleted << true;
        QTest::newRow("signed folder name trimmed") << " Pasirasyta /x.pdf" << deleted << true;
        QTest::newRow("signed folder deeper is scanned")
            << "Klientai/Pasirasyta/x.pdf" << deleted << false;
        QTest::newRow("deleted folder") << "Istrinta/2026-01/a.pdf" << deleted << true;
        QTest::newRow("deleted folder any case") << "ISTRINTA/a.pdf" << deleted << true;
        QTest::newRow("deleted folder deeper is scanned") << "A/Istrinta/a.pdf" << deleted << false;
        QTest::newRow("configured deleted folder")
            << QString::fromUtf8("Šiukšlės/a.pdf") << QString::fromUtf8("šiukšlės") << true;
        QTest::newRow("default name free when another is configured")
            << "Istrinta/a.pdf" << QStringLiteral("Kita") << false;
        QTest::newRow("cache folder") << "Projektai/cache/a.pdf" << deleted << true;
        QTest::newRow("cached folder") << "Projektai/cached/a.pdf" << deleted << false;
        QTest::newRow("temporary folder at the top") << "tmp/a.pdf" << deleted << true;
        QTest::newRow("hidden temp folder deep") << "A/B/.vantro-temp/a.pdf" << deleted << true;
        QTest::newRow("file named like a cache folder") << "A/cache" << deleted << false;
        QTest::newRow("office lock file") << "~$sutartis.docx" << deleted << true;
        QTest::newRow("office lock file in folder") << "A/~$x.xlsx" << deleted << true;
        QTest::newRow("partial download") << "a.pdf.crdownload" << deleted << true;
        QTest::newRow("partial any case") << "a.PDF.PARTIAL" << deleted << true;
        QTest::newRow("download suffix") << "a.download" << deleted << true;
        QTest::newRow("tmp suffix") << "a.tmp" << deleted << true;
        QTest::newRow("tmp not last") << "a.tmp.pdf" << deleted << false;
        QTest::newRow("empty parts dropped") << "//Pasirasyta//x.pdf" << deleted << true;
        QTest::newRow("empty path") << "" << deleted << false;
        QTest::newRow("only separators") << "///" << deleted << false;
    }
    void skippedRelativePath()
    {
        QFETCH(QString, path);
        QFETCH(QString, deletedFolder);
        QTEST(isSkippedRelativePath(path, deletedFolder), "skipped");
    }

    void monthFolderUnderOriginals()
    {
        QCOMPARE(monthFolder(QStringLiteral("/r"), QDate(2026, 1, 31)),
                 QStringLiteral("/r/Originalai/2026-01"));
        QCOMPARE(monthFolder(QStringLiteral("/r"), QDate(2025, 12, 1)),
                 QStringLiteral("/r/Originalai/2025-12"));
    }

private:
    // "name/" makes a folder, "name@" a dangling symbolic link, anything else a file.
    static void occupy(const QTemporaryDir& dir, const QString& entry)
    {
        if (entry.endsWith(QLatin1Char('/'))) {
            QVERIFY(QDir(dir.path()).mkdir(entry.chopped(1)));
        } else if (entry.endsWith(QLatin1Char('@'))) {
            QVERIFY(QFile::link(dir.filePath(QStringLiteral("nowhere")),
                                dir.filePath(entry.chopped(1))));
        } else {
            QFile file(dir.filePath(entry));
            QVERIFY(file.open(QIODevice::WriteOnly));
        }
    }
};

QTEST_GUILESS_MAIN(RootRulesTest)
#include "tst_root_rules.moc"
