#include "api/Heartbeat.h"

#include "api/Endpoints.h"
#include "api/Logging.h"
#include "api/SignApiClient.h"
#include "app/AppState.h"
#include "app/FileHash.h"
#include "vantro_config.h"

#include <QNetworkReply>

namespace vantro {

namespace {

const QString kDesktop = QStringLiteral("desktop");

OrderedObject capabilities(bool helperAvailable)
{
    static const char* const kAlwaysOn[] = {
        "qt_bridge",
        "native_desktop_bridge",
        "electron_bridge",
        "local_file_handles",
        "explorer_drag_drop_import",
        "local_root_watch",
        "local_root_selection",
        "mirror_queue",
        "signed_artifact_mirror",
        "artifact_reveal_exact",
        "artifact_reveal_v2",
        "artifact_reveal_cancel",
        "dark_mode",
        "windows_default_preview",
        "native_windows_preview",
        "native_windows_child_preview",
        "msoffice_wysiwyg_preview",
        "msoffice_preview_cache",
        "adoc_local_extract",
    };
    OrderedObject out{{QStringLiteral("platform"), kDesktop}};
    for (const char* name : kAlwaysOn)
        out.insert(QLatin1String(name), true);
    out.insert(QStringLiteral("usb_bridge"), helperAvailable);
    return out;
}

} // namespace

OrderedObject heartbeatBody(const QString& localRoot, const OrderedObject& status)
{
    const bool helper = status.value(QStringLiteral("helperAvailable"), false).toBool();
    const auto count = [&](const char* key) {
        return status.value(QLatin1String(key), 0).toInt();
    };
    return OrderedObject{
        {QStringLiteral("app_version"), QString::fromLatin1(config::kApplicationVersion)},
        {QStringLiteral("platform"), kDesktop},
        {QStringLiteral("helper_health"),
         helper ? QStringLiteral("available") : QStringLiteral("missing")},
        // Case-folded so that the same folder spelt differently on Windows counts once.
        {QStringLiteral("local_root_hash"), sha256Hex(localRoot.toLower().toUtf8())},
        {QStringLiteral("pending_mirror_count"), count("pendingMirrorCount")},
        {QStringLiteral("mirror_queue_failed_count"), count("failedMirrorCount")},
        {QStringLiteral("capabilities"), capabilities(helper).toVariant()},
    };
}

void SignApiClient::sendHeartbeat(const OrderedObject& status)
{
    if (!hasCredentials())
        return;
    try {
        // Appended as text: a path prefix of the base stays in front.
        const QUrl url(m_baseUrl + QLatin1String(endpoints::kApiPrefix) +
                       QStringLiteral("/heartbeat"));
        QNetworkReply* reply = m_network.post(buildRequest(url, true),
                                              heartbeatBody(m_state->localRoot(), status).toJson());
        connect(reply, &QNetworkReply::finished, reply, &QObject::deleteLater);
    } catch (const std::exception& refused) {
        // The service learns nothing this time; the user is not bothered with it.
        qCWarning(lcApi) << "heartbeat not sent:" << refused.what();
    }
}

} // namespace vantro
