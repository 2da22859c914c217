// Naming and layout rules of the local root.
#include "store/RootRules.h"
#include "StoreTestSupport.h"

using namespace vantro::rootrules;

class RootRulesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // One row per rule case: the rule, its input, the answer ("yes"/"no" for predicates) and,
    // for "skip", the deleted-folder name when it is not the default.
    void rules_data()
    {
        QTest::addColumn<QString>("rule");
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<QString>("deleted");
        const auto row = [](const char* rule, const char* name, const QString& in,
                            const QString& out, const QString& deleted = "Istrinta") {
            QTest::addRow("%s: %s", rule, name) << QString(rule) << in << out << deleted;
        };
        const QString x179(179, 'x');
        row("clean", "trim, replace, strip trailing dot", "  a<b>:c.pdf.  ", "a_b__c.pdf");
        row("clean", "all forbidden", "1<2>3:4\"5/6\\7|8?9*0.pdf", "1_2_3_4_5_6_7_8_9_0.pdf");
        row("clean", "control characters", "a\tb\x01.\x1f.pdf", "a_b_._.pdf");
        row("clean", "inner dots, Lithuanian letters", "Są.signed.pdf", "Są.signed.pdf");
        row("clean", "only dots: caller's fallback", "....", "fb");
        row("clean", "only spaces: caller's fallback", "    ", "fb");
        row("clean", "300 cut to 180 regardless of extension", QString(296, 'x') + ".pdf",
            x179 + 'x');
        row("clean", "cut may end in a dot again", x179 + ".pdf", x179 + '.');
        row("clean", "cut never splits a surrogate pair", x179 + "😀.pdf", x179);
        row("title", "before the first dot, trimmed", "/d/ Sutartis .signed.pdf", "Sutartis");
        row("title", "no suffix", "/d/README", "README");
        row("title", "nothing before the dot", "/d/.pdf", "Dokumentas");
        row("title", "only spaces before the dot", "/d/   .pdf", "Dokumentas");
        row("relative", "file in root", "/R/Sutartis.pdf", "Sutartis.pdf");
        row("relative", "nested", "/R/Projektai/2026/a.pdf", "Projektai/2026/a.pdf");
        row("relative", "outside", "/other/a.pdf", "");
        row("relative", "sibling sharing the prefix", "/R2/a.pdf", "");
        row("relative", "..notes.pdf counts as outside", "/R/..notes.pdf", "");
        row("relative", "dot-dot leaving the root", "/R/A/../../other/a.pdf", "");
        row("relative", "dot-dot staying inside", "/R/A/../b.pdf", "b.pdf");
        row("relative", "parent of the root", "/", "");
        for (const char* s : {"pdf", "doc", "docx", "odt", "xls", "xlsx", "txt", "png", "jpg",
                              "jpeg", "adoc", "asice", "PDF", "tar.pdf"})
            row("type", s, QString("/d/a.") + s, "yes");
        for (const char* s : {"pptx", "asic", "pdf.exe"})
            row("type", s, QString("/d/a.") + s, "no");
        row("type", "no suffix, name pdf", "/d/pdf", "no");
        for (const char* s : {"tmp", "temp", "partial", "crdownload", "download", "TMP"})
            row("suffix", s, s, "yes");
        for (const char* s : {"pdf", ".tmp", "downloads"})
            row("suffix", s, s, "no");
        for (const char* s : {"tmp", "temp", ".tmp", ".temp", "cache", ".cache", "previews",
                              "preview-cache", ".vantro-temp", "  Cache "})
            row("dir", s, s, "yes");
        for (const char* s : {"cached", "preview", "Pasirasyta"})
            row("dir", s, s, "no");
        row("skip", "plain document", "Sutartis.pdf", "no");
        row("skip", "signed folder", "Pasirasyta/x.pdf", "yes");
        row("skip", "signed folder upper case", "PASIRASYTA/x.pdf", "yes");
        row("skip", "signed folder, Lithuanian letter", "Pasirašyta/x.pdf", "yes");
        row("skip", "signed folder name trimmed", " Pasirasyta /x.pdf", "yes");
        row("skip", "signed folder deeper is scanned", "Klientai/Pasirasyta/x.pdf", "no");
        row("skip", "deleted folder any case", "ISTRINTA/2026-01/a.pdf", "yes");
        row("skip", "deleted folder deeper is scanned", "A/Istrinta/a.pdf", "no");
        row("skip", "configured deleted folder", "Šiukšlės/a.pdf", "yes", "šiukšlės");
        row("skip", "default free when another is set", "Istrinta/a.pdf", "no", "Kita");
        row("skip", "cache folder", "Projektai/cache/a.pdf", "yes");
        row("skip", "cached folder", "Projektai/cached/a.pdf", "no");
        row("skip", "temporary folder at the top", "tmp/a.pdf", "yes");
        row("skip", "file named like a cache folder", "A/cache", "no");
        row("skip", "office lock file", "~$sutartis.docx", "yes");
        row("skip", "partial download", "a.pdf.crdownload", "yes");
        row("skip", "partial any case", "a.PDF.PARTIAL", "yes");
        row("skip", "tmp not last", "a.tmp.pdf", "no");
        row("skip", "empty parts dropped", "//Pasirasyta//x.pdf", "yes");
        row("skip", "empty path", "", "no");
        row("month", "January", "2026-01-31", "/r/Originalai/2026-01");
        row("month", "December", "2025-12-01", "/r/Originalai/2025-12");
    }
    void rules()
    {
        QFETCH(QString, rule);
        QFETCH(QString, input);
        QFETCH(QString, deleted);
        const auto yes = [](bool value) {
            return QString(value ? "yes" : "no");
        };
        const QHash<QString, std::function<QString()>> rules{
            {"clean",
             [&] {
                 return cleanFileName(input, "fb");
             }},
            {"title",
             [&] {
                 return titleFromFile(input);
             }},
            {"relative",
             [&] {
                 return relativePathInRoot("/R", input);
             }},
            {"type",
             [&] {
                 return yes(isSupportedDocumentType(input));
             }},
            {"suffix",
             [&] {
                 return yes(isTemporarySuffix(input));
             }},
            {"dir",
             [&] {
                 return yes(isSkippedDirectoryName(input));
             }},
            {"skip",
             [&] {
                 return yes(isSkippedRelativePath(input, deleted));
             }},
            {"month", [&] {
                 return monthFolder("/r", QDate::fromString(input, Qt::ISODate));
             }}};
        QTEST(rules.value(rule)(), "expected");
    }

    void uniquePath_data()
    {
        QTest::addColumn<QString>("taken"); // "name/" is a folder, "name@" a dangling link
        QTest::addColumn<QString>("wanted");
        QTest::addColumn<QString>("result");
        const auto row = [](const char* name, const char* taken, const char* wanted,
                            const char* result) {
            QTest::newRow(name) << QString(taken) << QString(wanted) << QString(result);
        };
        row("free", "", "Sutartis.pdf", "Sutartis.pdf");
        row("taken once", "Sutartis.pdf", "Sutartis.pdf", "Sutartis_2.pdf");
        row("no _1, _3 after _2", "Sutartis.pdf Sutartis_2.pdf", "Sutartis.pdf", "Sutartis_3.pdf");
        row("first gap wins", "Sutartis.pdf Sutartis_3.pdf", "Sutartis.pdf", "Sutartis_2.pdf");
        row("suffix from the first dot", "S.signed.pdf", "S.signed.pdf", "S_2.signed.pdf");
        row("no suffix", "README", "README", "README_2");
        row("a folder takes the name", "Sutartis.pdf/", "Sutartis.pdf", "Sutartis_2.pdf");
        row("a dangling link takes the name", "Sutartis.pdf@", "Sutartis.pdf", "Sutartis_2.pdf");
    }
    void uniquePath()
    {
        QFETCH(QString, taken);
        QFETCH(QString, wanted);
        QTemporaryDir dir;
        for (const QString& entry : taken.split(' ', Qt::SkipEmptyParts)) {
            const QString path = dir.filePath(entry.chopped(1));
            if (entry.endsWith('/'))
                QVERIFY(QDir().mkdir(path));
            else if (entry.endsWith('@'))
                QVERIFY(QFile::link(dir.filePath("nowhere"), path));
            else
                QVERIFY(QFile(dir.filePath(entry)).open(QIODevice::WriteOnly));
        }
        QTEST(vantro::rootrules::uniquePath(dir.filePath(wanted)).mid(dir.path().size() + 1),
              "result");
    }

    // Each answer is taken at once: 100 calls end at _100, the next one gives up.
    void uniquePathGivesUpAfterHundredAttempts()
    {
        QTemporaryDir dir;
        const QString wanted = dir.filePath("Sutartis.pdf");
        QString last;
        for (int i = 0; i < 100; ++i)
            QVERIFY(QFile(last = vantro::rootrules::uniquePath(wanted)).open(QIODevice::WriteOnly));
        QCOMPARE(last, dir.filePath("Sutartis_100.pdf"));
        QCOMPARE(storetest::codeOf([&] { vantro::rootrules::uniquePath(wanted); }),
                 "VANTRO_SIGN_LOCAL_FILE_UNIQUE_PATH_EXHAUSTED");
    }
};

QTEST_GUILESS_MAIN(RootRulesTest)
#include "tst_root_rules.moc"
