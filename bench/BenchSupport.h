#pragma once

// Timing, reference tools and the BENCH line shared by the benchmarks.
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QProcess>
#include <QRandomGenerator>
#include <QString>
#include <QStringList>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <utility>
#include <vector>

namespace benchsupport {

inline double medianMs(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    return samples.at(samples.size() / 2);
}

inline double timedMs(const std::function<void()>& run)
{
    QElapsedTimer timer;
    timer.start();
    run();
    return double(timer.nsecsElapsed()) / 1e6;
}

// Runs both sides once to warm caches, then `repetitions` times each, interleaved; `prepare`
// runs untimed before every run of ours (to reset its state). Answers the two medians.
inline std::pair<double, double> compare(const std::function<void()>& ours,
                                         const std::function<void()>& reference,
                                         int repetitions = 9,
                                         const std::function<void()>& prepare = {})
{
    const auto runOurs = [&] {
        if (prepare)
            prepare();
        return timedMs(ours);
    };
    runOurs();
    reference();
    std::vector<double> oursMs;
    std::vector<double> referenceMs;
    for (int i = 0; i < repetitions; ++i) {
        oursMs.push_back(runOurs());
        referenceMs.push_back(timedMs(reference));
    }
    return {medianMs(oursMs), medianMs(referenceMs)};
}

// Runs a command-line tool to completion. Timed runs discard the output; otherwise it is
// answered.
inline QByteArray runTool(const QString& program, const QStringList& arguments,
                          bool keepOutput = false)
{
    QProcess process;
    if (!keepOutput)
        process.setStandardOutputFile(QProcess::nullDevice());
    process.start(program, arguments);
    if (!process.waitForFinished(600000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0)
        qFatal("%s failed: %s", qPrintable(program), qPrintable(process.errorString()));
    return keepOutput ? process.readAllStandardOutput() : QByteArray();
}

// Writes `size` random bytes (incompressible, like a signed document) to `path`, creating its
// folder; answers the path.
inline QString writeRandomFile(const QString& path, qint64 size)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        qFatal("cannot write %s", qPrintable(path));
    QByteArray block(1 << 20, Qt::Uninitialized);
    for (qint64 written = 0; written < size; written += block.size()) {
        QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(block.data()),
                                              block.size() / 4);
        file.write(block.constData(), qMin<qint64>(block.size(), size - written));
    }
    return path;
}

// Prints the figure's BENCH line; true when the ratio is within the target.
inline bool report(const QString& name, double value, double reference, double target,
                   const char* unit = "ms")
{
    const double ratio = value / reference;
    std::printf("BENCH name=%s value=%.3f unit=%s reference=%.3f ratio=%.3f target=%.1f\n",
                qPrintable(name), value, unit, reference, ratio, target);
    std::fflush(stdout);
    return ratio <= target;
}

// A figure: its highest acceptable ratio and how to measure it (ours, reference) in a fresh
// workspace.
template <typename Workspace> struct Figure
{
    double target;
    std::function<std::pair<double, double>(Workspace&)> measure;
};

// Measures the figures named on the command line (all when none are), each in a workspace of
// its own, with the store's own logging quiet, and prints their BENCH lines; the exit status is
// 1 when a ratio is above its target.
template <typename Workspace>
int runFigures(int argc, char** argv, const std::map<QString, Figure<Workspace>>& figures)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("vantro.store.debug=false\n"
                                                    "vantro.store.info=false"));
    const QStringList wanted = app.arguments().mid(1);
    int status = 0;
    for (const auto& [name, figure] : figures) {
        if (!wanted.isEmpty() && !wanted.contains(name))
            continue;
        Workspace workspace;
        const auto [value, reference] = figure.measure(workspace);
        if (!report(name, value, reference, figure.target))
            status = 1;
    }
    return status;
}

} // namespace benchsupport
