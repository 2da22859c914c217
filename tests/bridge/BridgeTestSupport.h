#pragma once

// Isolated profile, doubles and the one fixture shared by the bridge tests.
#include "api/SignApiClient.h"
#include "app/AppState.h"
#include "bridge/BridgeChannel.h"
#include "bridge/DesktopBridge.h"
#include "bridge/DesktopShell.h"
#include "usb/RuntimeBridge.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>
#include <QUrl>

#include <functional>
#include <utility>

namespace vantro::test {

// Points HOME and the data folder at `home` and writes a device.json naming a local root there,
// so device.json, local.db and the root of one test never meet another's. Answers device.json.
inline QString prepareProfile(const QString& home)
{
    const QByteArray dir = home.toUtf8();
    qputenv("HOME", dir);
    qputenv("XDG_DATA_HOME", dir + "/.local/share");
    qunsetenv("VANTRO_SIGN_BASE_URL");
    QFile device(home + "/device.json");
    if (!QDir().mkpath(home + "/root") || !device.open(QIODevice::WriteOnly) ||
        device.write(QJsonDocument(QJsonObject{{"localRoot", home + "/root"}}).toJson()) <= 0)
        qFatal("cannot prepare a profile in %s", qPrintable(home));
    return device.fileName();
}

// Records every answer and script the channel hands to the browser.
struct FakeWebView : BridgeWebView
{
    void postWebMessageAsJson(const QByteArray& json) override { posts << json; }
    void executeScript(const QString& script) override { scripts << script; }
    QList<QByteArray> posts;
    QStringList scripts;
};

// Records dialogs (cancelled, but for a folder set in `pickedFolder`) and opened URLs.
// `duringDialog` runs once inside the open file picker, as a modal dialog runs the event loop,
// while the first call still holds the bridge.
struct FakeShell : DesktopShell
{
    QString pickFolder(const QString& title, const QString& start) override
    {
        calls << "pickFolder|" + title + '|' + start;
        return pickedFolder;
    }
    QStringList pickFiles(const QString& title, const QString& start,
                          const QString& filter) override
    {
        calls << QStringList{"pickFiles", title, start, filter}.join('|');
        if (const auto hook = std::exchange(duringDialog, nullptr))
            hook();
        return {};
    }
    bool openUrl(const QUrl& url) override
    {
        calls << "open|" + url.toLocalFile();
        return true;
    }
    std::function<void()> duringDialog;
    QString pickedFolder;
    QStringList calls;
};

// The main-thread component set in a fresh profile, built in the order the window builds it.
struct BridgeFixture
{
    BridgeFixture() { bridge.setDesktopShell(&shell); }
    QString path(const QString& name) const { return home.filePath(name); }
    QVariant call(const QString& method, const QVariantList& args = {})
    {
        return bridge.handle(method, args, source).toVariant();
    }
    QTemporaryDir home;
    AppState state{prepareProfile(home.path())}; // the profile first, then device.json is read
    SignApiClient api{&state};
    FakeShell shell;
    RuntimeBridge runtime{home.filePath(QStringLiteral("pins")), nullptr};
    DesktopBridge bridge{&state, &runtime, &api};
    const QString source = api.webAppUrl().toString();
};

// Compact QtTest tables: addColumns<QString, int>({"a", "b"}); addRow("name", "text", 1);
template <typename... Types> void addColumns(const QList<const char*>& names)
{
    int i = 0;
    (QTest::addColumn<Types>(names.at(i++)), ...);
}
template <typename... Values> void addRow(const char* name, const Values&... values)
{
    (QTest::newRow(name) << ... << values);
}

// An error result object as compact JSON.
inline QString err(const QString& code, const QString& message)
{
    return QStringLiteral(R"({"ok":false,"error":{"code":"%1","message":"%2"}})")
        .arg(code, message);
}

// The error code of a result object.
inline QString codeOf(const QVariant& result)
{
    return variantMember(variantMember(result, "error"), "code").toString();
}

} // namespace vantro::test
