// Naming and layout rules of the local root.
#include "store/RootRules.h"
#include "StoreTestSupport.h"

using namespace vantro::rootrules;

namespace {

QString apply(const QString& rule, const QString& in, const QString& deleted)
{
    const auto yes = [](bool value) {
        return QString(value ? "yes" : "no");
    };
    return rule == "clean"      ? cleanFileName(in, "fb")
           : rule == "title"    ? titleFromFile(in)
           : rule == "relative" ? relativePathInRoot("/R", in)
           : rule == "type"     ? yes(isSupportedDocumentType(in))
           : rule == "suffix"   ? yes(isTemporarySuffix(in))
           : rule == "dir"      ? yes(isSkippedDirectoryName(in))
           : rule == "skip"     ? yes(isSkippedRelativePath(in, deleted))
                                : monthFolder("/r", QDate::fromString(in, Qt::ISODate));
}

} // namespace

class RootRulesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // One row per rule: the rule, its input, the answer ("yes"/"no" for predicates) and, for
    // "skip", the deleted-folder name when it is not the default.
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
        row("clean", "forbidden", " 1<2>3:4\"5/6\\7|8?9*0.pdf", "1_2_3_4_5_6_7_8_9_0.pdf");
        row("clean", "control characters, trailing dots", "a\tb\x01.\x1f.pdf. .", "a_b_._.pdf");
        row("clean", "nothing left: caller's fallback", " .. ", "fb");
        row("clean", "cut to 180 regardless of extension", QString(296, 'x') + ".pdf", x179 + 'x');
        row("clean", "cut may end in a dot again", x179 + ".pdf", x179 + '.');
        row("clean", "cut never splits a surrogate pair", x179 + "😀.pdf", x179);
        row("title", "before the first dot, trimmed", "/d/ Sutartis .signed.pdf", "Sutartis");
        row("title", "blank before the dot", "/d/   .pdf", "Dokumentas");
        row("relative", "nested", "/R/Projektai/2026/a.pdf", "Projektai/2026/a.pdf");
        row("relative", "sibling sharing the prefix", "/R2/a.pdf", "");
        row("relative", "..notes.pdf counts as outside", "/R/..notes.pdf", "");
        row("relative", "dot-dot leaving the root", "/R/A/../../other/a.pdf", "");
        row("relative", "dot-dot staying inside", "/R/A/../b.pdf", "b.pdf");
        row("type", "last suffix, any case", "/d/a.tar.PDF", "yes");
        row("type", "unsupported", "/d/a.pptx", "no");
        row("type", "no suffix, name pdf", "/d/pdf", "no");
        row("suffix", "any case", "CRDOWNLOAD", "yes");
        row("suffix", "whole suffix only", "downloads", "no");
        row("dir", "trimmed, any case", "  .Cache ", "yes");
        row("dir", "whole name only", "cached", "no");
        row("skip", "plain document", "Sutartis.pdf", "no");
        row("skip", "signed folder trimmed, any case", " PASIRASYTA /x.pdf", "yes");
        row("skip", "signed folder, Lithuanian letter", "Pasirašyta/x.pdf", "yes");
        row("skip", "signed folder deeper is scanned", "Klientai/Pasirasyta/x.pdf", "no");
        row("skip", "deleted folder any case", "ISTRINTA/2026-01/a.pdf", "yes");
        row("skip", "configured deleted folder", "Šiukšlės/a.pdf", "yes", "šiukšlės");
        row("skip", "default free when another is set", "Istrinta/a.pdf", "no", "Kita");
        row("skip", "cache folder at any depth", "Projektai/cache/a.pdf", "yes");
        row("skip", "file named like a cache folder", "A/cache", "no");
        row("skip", "office lock file", "~$sutartis.docx", "yes");
        row("skip", "partial download any case", "a.PDF.PARTIAL", "yes");
        row("skip", "tmp not last", "a.tmp.pdf", "no");
        row("skip", "empty parts dropped", "//Pasirasyta//x.pdf", "yes");
        row("month", "December", "2025-12-01", "/r/Originalai/2025-12");
    }
    void rules()
    {
        QFETCH(QString, rule);
        QFETCH(QString, input);
        QFETCH(QString, deleted);
        QTEST(apply(rule, input, deleted), "expected");
    }

    // A folder and a dangling link take names too; the suffix starts at the first dot; each
    // answer is taken at once, so 100 calls end at _100 and the next one gives up.
    void uniquePathCountsToHundred()
    {
        QTemporaryDir dir;
        QVERIFY(QDir().mkdir(dir.filePath("S.signed.pdf")));
        QVERIFY(QFile::link(dir.filePath("nowhere"), dir.filePath("S_2.signed.pdf")));
        const QString wanted = dir.filePath("S.signed.pdf");
        QCOMPARE(uniquePath(wanted), dir.filePath("S_3.signed.pdf"));
        QString last;
        for (int i = 3; i <= 100; ++i)
            QVERIFY(QFile(last = uniquePath(wanted)).open(QIODevice::WriteOnly));
        QCOMPARE(last, dir.filePath("S_100.signed.pdf"));
        QCOMPARE(storetest::codeOf([&] { uniquePath(wanted); }),
                 "VANTRO_SIGN_LOCAL_FILE_UNIQUE_PATH_EXHAUSTED");
    }
};

QTEST_GUILESS_MAIN(RootRulesTest)
#include "tst_root_rules.moc"
