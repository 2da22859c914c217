#pragma once

// Isolated profile, doubles and the one fixture shared by the bridge tests.
#include "api/SignApiClient.h"
#include "app/AppState.h"
#include "bridge/BridgeChannel.h"
#include "bridge/DesktopBridge.h"
#include "bridge/DesktopShell.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>
#include <QUrl>

#include <functional>

namespace vantro::test {

// Points HOME and the XDG folders at `home` and writes a device.json naming a local root there,
// so device.json, local.db and the root of one test never meet another's.
inline bool prepareProfile(const QString& home)
{
    const QByteArray dir = home.toUtf8();
    qputenv("HOME", dir);
    qputenv("XDG_DATA_HOME", dir + "/.local/share");
    qputenv("XDG_CONFIG_HOME", dir + "/.config");
    qputenv("XDG_CACHE_HOME", dir + "/.cache");
    qunsetenv("VANTRO_SIGN_BASE_URL");
    qunsetenv("VANTRO_SIGN_ALLOW_LOCAL_API_BASE");
    QFile device(home + "/device.json");
    return QDir().mkpath(home + "/root") && device.open(QIODevice::WriteOnly) &&
           device.write(QJsonDocument(QJsonObject{{"localRoot", home + "/root"}}).toJson()) > 0;
}

// Records every answer and script the channel hands to the browser.
class FakeWebView : public BridgeWebView
{
public:
    void postWebMessageAsJson(const QByteArray& json) override { posts << json; }
    void executeScript(const QString& script) override { scripts << script; }
    // The answer posted under `id`, or an empty object.
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

// Records every dialog and opened URL. `duringDialog` runs while a picker is "open", as a modal
// dialog runs the event loop: tests call in there while the first call still holds the bridge.
class FakeShell : public DesktopShell
{
public:
    QString pickFolder(const QString& title, const QString& start) override
    {
        dialog(QStringList{"pickFolder", title, start});
        return folderAnswer;
    }
    QStringList pickFiles(const QString& title, const QString& start,
                          const QString& filter) override
    {
        dialog(QStringList{"pickFiles", title, start, filter});
        return filesAnswer;
    }
    bool openUrl(const QUrl& url) override
    {
        calls << "open|" + url.toLocalFile();
        return openAnswer;
    }
    QString folderAnswer;
    QStringList filesAnswer;
    bool openAnswer = true;
    std::function<void()> duringDialog;
    QStringList calls;

private:
    void dialog(const QStringList& call)
    {
        calls << call.join('|');
        if (duringDialog)
            duringDialog();
    }
};

// The main-thread component set in a fresh profile, built in the order the window builds it.
struct BridgeFixture
{
    BridgeFixture() { bridge.setDesktopShell(&shell); }
    QString path(const QString& name) const { return home.filePath(name); }
    QString devicePath() const { return path("device.json"); }
    QString rootPath() const { return path("root"); }
    QByteArray deviceBytes() const
    {
        QFile file(devicePath());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    OrderedObject call(const QString& method, const QVariantList& args = {})
    {
        return bridge.handle(method, args, source);
    }
    QTemporaryDir home;
    const bool prepared = prepareProfile(home.path()); // before the state loads device.json
    AppState state{devicePath()};
    SignApiClient api{&state};
    FakeShell shell;
    DesktopBridge bridge{&state, &api};
    const QString source = api.webAppUrl().toString();
};

inline QVariantList argsFromJson(const QString& json)
{
    return QJsonDocument::fromJson(json.toUtf8()).array().toVariantList();
}

// Compact QtTest tables: addColumns<QString, int>({"a", "b"}); addRow("name", "text", 1);
template <typename... Types> void addColumns(const QList<const char*>& names)
{
    int i = 0;
    (QTest::addColumn<Types>(names.at(i++)), ...);
}
inline QString column(const char* text)
{
    return QString::fromUtf8(text);
}
template <typename T> const T& column(const T& value)
{
    return value;
}
template <typename... Values> void addRow(const char* name, const Values&... values)
{
    (QTest::newRow(name) << ... << column(values));
}

// Expected result objects as compact JSON.
inline QString err(const QString& code, const QString& message)
{
    return QStringLiteral(R"({"ok":false,"error":{"code":"%1","message":"%2"}})")
        .arg(code, message);
}
inline QString okJson(const QString& value)
{
    return QStringLiteral(R"({"ok":true,"value":%1})").arg(value);
}

// The error code of a result object, as the bridge returns it or inside a posted answer.
struct Result
{
    Result(const OrderedObject& result) { data = result.toVariant(); }
    Result(const QJsonObject& answer) { data = answer.value("result").toVariant(); }
    QVariant data;
};
inline QString codeOf(const Result& result)
{
    return variantMember(variantMember(result.data, "error"), "code").toString();
}

} // namespace vantro::test
