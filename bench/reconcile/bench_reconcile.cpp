// Reconciliation of a generated local root of 10,000 files (1 to 20 KB, about 200 folders up
// to 6 deep) against command-line references measured in the same run:
//   reconcile_10k_cold  the first run over an empty database (every file hashed and imported)
//                       vs `find ROOT -type f -print0 | xargs -0 openssl dgst -sha256`
//   reconcile_10k_warm  a run with nothing changed (every file a cache hit)
//                       vs `find ROOT -type f -printf '%s %T@\n'`
#include "app/AppState.h"
#include "BenchSupport.h"
#include "store/LocalStore.h"

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <map>

using namespace vantro;

namespace {

constexpr int kFiles = 10000;
constexpr int kFolders = 200;
constexpr int kMaxDepth = 6;

class Workspace
{
public:
    Workspace()
        : m_state(m_dir.filePath(QStringLiteral("device.json")))
    {
        m_state.setLocalRoot(root());
        generate();
    }
    QString root() const { return m_dir.filePath(QStringLiteral("root")); }
    QString database() const { return m_dir.filePath(QStringLiteral("local.db")); }

    // One run as the bridge makes it: a store of its own, opened, reconciling.
    OrderedObject reconcile()
    {
        LocalStore store(&m_state, database());
        return store.reconcileLocalRoot();
    }
    void forgetEverything() const
    {
        for (const char* suffix : {"", "-wal", "-shm"})
            QFile::remove(database() + QLatin1String(suffix));
    }

private:
    // A fixed seed: every run measures the same tree.
    void generate()
    {
        QRandomGenerator random(20261123);
        QStringList folders{QString()};
        QList<int> depths{0};
        while (folders.size() <= kFolders) {
            const int parent = random.bounded(int(folders.size()));
            if (depths.at(parent) >= kMaxDepth)
                continue;
            const QString name = QStringLiteral("Aplankas %1").arg(folders.size());
            folders << (folders.at(parent).isEmpty() ? name : folders.at(parent) + '/' + name);
            depths << depths.at(parent) + 1;
        }
        const char* suffixes[] = {"pdf", "docx", "txt", "xlsx", "png"};
        QByteArray content(20 * 1024, Qt::Uninitialized);
        for (int i = 0; i < kFiles; ++i) {
            const QString folder = QDir(root()).filePath(folders.at(1 + i % kFolders));
            QDir().mkpath(folder);
            QFile file(
                QStringLiteral("%1/Dokumentas %2.%3").arg(folder).arg(i).arg(suffixes[i % 5]));
            const int size = 1024 + random.bounded(19 * 1024);
            random.fillRange(reinterpret_cast<quint32*>(content.data()), size / 4 + 1);
            if (!file.open(QIODevice::WriteOnly) || file.write(content.constData(), size) != size)
                qFatal("cannot write %s", qPrintable(file.fileName()));
        }
    }

    QTemporaryDir m_dir;
    AppState m_state;
};

int importedCount(const OrderedObject& summary)
{
    return int(summary.value(QStringLiteral("imported")).toList().size());
}

std::pair<double, double> cold(Workspace& ws)
{
    const QString command =
        QStringLiteral("find \"$1\" -type f -print0 | xargs -0 openssl dgst -sha256");
    int imported = 0;
    const auto result = benchsupport::compare(
        [&] { imported = importedCount(ws.reconcile()); },
        [&] {
            benchsupport::runTool(QStringLiteral("sh"),
                                  {QStringLiteral("-c"), command, QStringLiteral("sh"), ws.root()});
        },
        5, [&] { ws.forgetEverything(); });
    if (imported != kFiles)
        qFatal("the cold run imported %d of %d files", imported, kFiles);
    return result;
}

std::pair<double, double> warm(Workspace& ws)
{
    if (importedCount(ws.reconcile()) != kFiles)
        qFatal("the first run did not import every file");
    OrderedObject summary;
    const auto result = benchsupport::compare(
        [&] { summary = ws.reconcile(); },
        [&] {
            benchsupport::runTool(QStringLiteral("find"),
                                  {ws.root(), QStringLiteral("-type"), QStringLiteral("f"),
                                   QStringLiteral("-printf"), QStringLiteral("%s %T@\n")});
        });
    for (const char* key : {"imported", "renamed", "restored", "missing"}) {
        if (!summary.value(QLatin1String(key)).toList().isEmpty())
            qFatal("a run with nothing changed reported %s", key);
    }
    return result;
}

} // namespace

int main(int argc, char** argv)
{
    return benchsupport::runFigures<Workspace>(
        argc, argv,
        {{QStringLiteral("reconcile_10k_cold"), {2.5, cold}},
         {QStringLiteral("reconcile_10k_warm"), {3.0, warm}}});
}
