// update_sha512_512mib: the installer digest check, as the update manager runs it on the
// thread pool, against `openssl dgst -sha512` over the same 512 MiB file, in the same run.
#include "BenchSupport.h"

#include "app/FileHash.h"

#include <QCoreApplication>
#include <QtConcurrent/QtConcurrentRun>
#include <QTemporaryDir>
#include <QThreadPool>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    const QString installer =
        benchsupport::writeRandomFile(dir.filePath("VantroSignNextSetup-9.9.9.exe"), 512ll << 20);
    const QByteArray expected = vantro::sha512File(installer);
    bool matched = true;
    const auto [ours, reference] = benchsupport::compare(
        [&] {
            const QByteArray digest =
                QtConcurrent::run(QThreadPool::globalInstance(), vantro::sha512File, installer)
                    .result();
            matched &= digest == expected;
        },
        [&] {
            benchsupport::runTool("openssl", {"dgst", "-sha512", installer});
        },
        3);
    if (!matched)
        qFatal("the digest changed between runs");
    return benchsupport::report("update_sha512_512mib", ours, reference, 1.2) ? 0 : 1;
}
