#pragma once

// Doubles and an isolated profile shared by the bridge tests.
#include "bridge/BridgeChannel.h"
#include "bridge/DesktopShell.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QList>
#include <QMutex>
#include <QStringList>
#include <QTemporaryDir>
#include <QUrl>

#include <functional>

namespace vantro::test {

// Points HOME and the XDG folders at a fresh temporary directory, so device.json, local.db and
// the local root of one test run never meet another's.
class IsolatedProfile
{
public:
    IsolatedProfile()
    {
        const QByteArray home = m_dir.path().toUtf8();
        qputenv("HOME", home);
        qputenv("XDG_DATA_HOME", home + "/.local/share");
        qputenv("XDG_CONFIG_HOME", home + "/.config");
        qputenv("XDG_CACHE_HOME", home + "/.cache");
        qunsetenv("VANTRO_SIGN_BASE_URL");
        qunsetenv("VANTRO_SIGN_ALLOW_LOCAL_API_BASE");
        QDir().mkpath(rootPath());
        writeDevice(QJsonObject{{QStringLiteral("localRoot"), rootPath()}});
    }

    bool isValid() const { return m_dir.isValid(); }
    QString path(const QString& name = {}) const { return m_dir.filePath(name); }
    QString devicePath() const { return m_dir.filePath(QStringLiteral("device.json")); }
    QString rootPath() const { return m_dir.filePath(QStringLiteral("root")); }

    void writeDevice(const QJsonObject& object) const
    {
        QFile file(devicePath());
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            file.write(QJsonDocument(object).toJson());
    }

    QByteArray deviceBytes() const
    {
        QFile file(devicePath());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

private:
    QTemporaryDir m_dir;
};

// Records every answer and script the channel hands to the browser.
class FakeWebView : public BridgeWebView
{
public:
    void postWebMessageAsJson(const QByteArray& json) override { posts << json; }
    void executeScript(const QString& script) override { scripts << script; }

    // The answer object posted under `id`, or an empty object.
    QJsonObject answer(const QString& id) const
    {
        for (const QByteArray& post : posts) {
            const QJsonObject object = QJsonDocument::fromJson(post).object();
            if (object.value(QStringLiteral("id")).toString() == id)
                return object;
        }
        return {};
    }

    QList<QByteArray> posts;
    QStringList scripts;
};

// Dialogs and folder opening on demand. `duringDialog` runs while a picker is "open", the way
// a modal dialog runs the event loop; a test uses it to call in while the first call waits.
class FakeShell : public DesktopShell
{
public:
    QString pickFolder(const QString& title, const QString& startDir) override
    {
        calls << QStringLiteral("pickFolder|%1|%2").arg(title, startDir);
        runDialog();
        return folderAnswer;
    }

    QStringList pickFiles(const QString& title, const QString& startDir,
                          const QString& filter) override
    {
        calls << QStringLiteral("pickFiles|%1|%2|%3").arg(title, startDir, filter);
        runDialog();
        return filesAnswer;
    }

    bool openUrl(const QUrl& url) override
    {
        opened << url;
        return openAnswer;
    }

    QString folderAnswer;
    QStringList filesAnswer;
    bool openAnswer = true;
    std::function<void()> duringDialog;
    QStringList calls;
    QList<QUrl> opened;

private:
    void runDialog()
    {
        if (duringDialog)
            duringDialog();
    }
};

// A stand-in card host program beside the test executable, removed again at scope end.
class HostProgramBeside
{
public:
    explicit HostProgramBeside(const QString& path)
        : m_path(path)
    {
        QFile file(m_path);
        if (file.open(QIODevice::WriteOnly))
            file.write("#!/bin/sh\n");
    }
    ~HostProgramBeside() { QFile::remove(m_path); }
    HostProgramBeside(const HostProgramBeside&) = delete;
    HostProgramBeside& operator=(const HostProgramBeside&) = delete;

private:
    QString m_path;
};

} // namespace vantro::test
