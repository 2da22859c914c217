#pragma once

// Installs copies of the fake host program (as symbolic links) in a folder standing in for
// the application's directory, each steered by its own script file.
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <cerrno>
#include <csignal>

namespace vantro::test {

class FakeHostDir
{
public:
    QString path() const { return m_dir.path(); }
    QString file(const QString& name) const { return m_dir.filePath(name); }

    // Links `name` to the fake program and writes its script; answers the program's path.
    QString install(const QString& name, const QByteArray& scriptJson = "{}")
    {
        const QString program = file(name);
        QFile::remove(program);
        QFile::remove(program + ".request");
        QFile::remove(program + ".pid");
        QFile script(program + ".json");
        if (!QFile::link(QStringLiteral(VANTRO_FAKE_HOST), program) ||
            !script.open(QIODevice::WriteOnly) || script.write(scriptJson) < 0)
            qFatal("cannot install the fake host as %s", qPrintable(program));
        return program;
    }

    // What the program received on its standard input, as JSON.
    QJsonObject request(const QString& name) const
    {
        QFile recorded(file(name) + ".request");
        return recorded.open(QIODevice::ReadOnly)
                   ? QJsonDocument::fromJson(recorded.readAll()).object()
                   : QJsonObject();
    }

    // True when the program was started and its process no longer exists (killed and reaped).
    bool processGone(const QString& name) const
    {
        QFile pidFile(file(name) + ".pid");
        if (!pidFile.open(QIODevice::ReadOnly))
            return false;
        const qint64 pid = pidFile.readAll().toLongLong();
        return pid > 0 && ::kill(pid_t(pid), 0) == -1 && errno == ESRCH;
    }

private:
    QTemporaryDir m_dir;
};

} // namespace vantro::test
