#pragma once

#include <QString>
#include <QWebEngineScript>

namespace vantro::pagescripts {

// Version the page API reports; it tracks the bridge protocol, not the program.
inline constexpr char kBridgeScriptVersion[] = "0.2.0-stage2a";

// The chrome.webview shim with Qt's web-channel client folded into it.
QString shimSource();

// The page API text with its placeholders filled in: %1 the application origin (the production
// origin when empty), %2 the version, %3 and %4 the production and portal origins; the origins
// as JSON string literals. Empty when the script resource is missing.
QString pageApiSource(const QString& appOrigin);

// A script injected into every main-frame document before any page script runs.
QWebEngineScript documentScript(const QString& name, const QString& source);

} // namespace vantro::pagescripts
