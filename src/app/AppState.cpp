#include "app/AppState.h"

#include "app/Logging.h"
#include "app/SafeName.h"
#include "platform/SecretStore.h"
#include "vantro_config.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QStandardPaths>

namespace vantro {

namespace {

const QString kDeviceId = QStringLiteral("deviceId");
const QString kSecret = QStringLiteral("deviceSecretProtected");
const QString kWorkspaceId = QStringLiteral("workspaceId");
const QString kAppUrl = QStringLiteral("appUrl");
const QString kApiBase = QStringLiteral("apiBase");
const QString kLicense = QStringLiteral("license");
const QString kSignerProfile = QStringLiteral("signerProfile");
const QString kActivation = QStringLiteral("activation");
const QString kLocalRoot = QStringLiteral("localRoot");
const QString kTheme = QStringLiteral("theme");
const QString kDeleteSettings = QStringLiteral("localDeleteSettings");
constexpr int kMaxDeletedFolderNameLength = 80;

const QString kPlainPrefix = QStringLiteral("plain:");
const QString kDark = QStringLiteral("dark");
const QString kVisualPosition = QStringLiteral("visual_position");
const QString kVisualPositions = QStringLiteral("visual_positions");

QJsonObject defaultSignerProfile()
{
    return {
        {QStringLiteral("bound"), false},
        {QStringLiteral("entity_profile_bound"), false},
        {QStringLiteral("display_name"), QString()},
        {QStringLiteral("email"), QString()},
        {QStringLiteral("phone_bound"), false},
        {QStringLiteral("qes_certificate_cached"), false},
        {kVisualPosition, QStringLiteral("top_left")},
        {QStringLiteral("visual_position_picked"), false},
        {kVisualPositions, QJsonArray()},
        {QStringLiteral("profile_bound_at"), QString()},
        {QStringLiteral("binding_source"), QString()},
    };
}

QString normalizedDeleteAction(const QString& action)
{
    if (action == QLatin1String("delete_permanently") ||
        action == QLatin1String("keep_local_files"))
        return action;
    return QStringLiteral("move_to_deleted_folder");
}

} // namespace

AppState::AppState(QObject* parent)
    : AppState(dataDir() + QStringLiteral("/device.json"), parent)
{
}

AppState::AppState(const QString& deviceJsonPath, QObject* parent)
    : QObject(parent)
    , m_path(deviceJsonPath)
    , m_secrets(&platform::systemSecretStore())
{
    load();
}

AppState::~AppState() = default;

QString AppState::dataDir()
{
    const QString location =
        QStandardPaths::writableLocation(QStandardPaths::AppDataLocation).trimmed();
    if (!location.isEmpty())
        return location;
    return QDir::homePath() + QStringLiteral("/.vantro-sign");
}

const QStringList& AppState::visualPositions()
{
    static const QStringList positions{QStringLiteral("top_left"), QStringLiteral("top_right"),
                                       QStringLiteral("bottom_left"),
                                       QStringLiteral("bottom_right")};
    return positions;
}

void AppState::setSecretStore(platform::SecretStore* store)
{
    m_secrets = store;
    m_cachedProtected.clear();
    m_cachedSecret.clear();
}

bool AppState::reportError(const QString& error)
{
    m_lastError = error;
    qCWarning(lcApp).noquote() << "device state:" << m_path << error;
    return false;
}

bool AppState::load()
{
    QFile file(m_path);
    if (!file.exists()) {
        m_root = QJsonObject();
        return true;
    }
    if (!file.open(QIODevice::ReadOnly))
        return reportError(file.errorString());
    QJsonParseError parse{};
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &parse);
    // A valid document that is not an object is refused with the parser's own text as well.
    if (parse.error != QJsonParseError::NoError || !document.isObject())
        return reportError(parse.errorString());
    m_root = document.object();
    return true;
}

bool AppState::save()
{
    // A folder that cannot be created shows up as the file's own open error below.
    QDir().mkpath(QFileInfo(m_path).absolutePath());
    QFile file(m_path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text))
        return reportError(file.errorString());
    const QByteArray json = QJsonDocument(m_root).toJson(QJsonDocument::Indented);
    if (file.write(json) != json.size() || !file.flush())
        return reportError(file.errorString());
    return true;
}

// The in-memory value is in effect whether or not the file was written, so listeners hear of
// it either way; the caller learns from the result whether it will survive a restart.
bool AppState::commit()
{
    const bool saved = save();
    Q_EMIT changed();
    return saved;
}

QString AppState::stringValue(const QString& key) const
{
    return m_root.value(key).toString();
}

QString AppState::deviceId() const
{
    return stringValue(kDeviceId);
}

QString AppState::workspaceId() const
{
    return stringValue(kWorkspaceId);
}

// Unprotecting may ask the operating system (or a keyring over D-Bus), so the clear text of the
// last stored text is kept and the platform is asked again only when that text changes.
QString AppState::deviceSecret() const
{
    const QString stored = stringValue(kSecret);
    if (stored != m_cachedProtected) {
        m_cachedSecret = revealSecret(stored);
        m_cachedProtected = stored;
    }
    return m_cachedSecret;
}

QString AppState::revealSecret(const QString& stored) const
{
    if (stored.startsWith(kPlainPrefix)) {
        const auto decoded = QByteArray::fromBase64Encoding(
            stored.mid(kPlainPrefix.size()).toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
        return decoded ? QString::fromUtf8(*decoded) : QString();
    }
    if (stored.isEmpty() || !m_secrets)
        return {};
    return m_secrets->unprotect(stored);
}

QString AppState::protectSecret(const QString& secret) const
{
    const QString stored = m_secrets ? m_secrets->protect(secret) : QString();
    if (!stored.isEmpty())
        return stored;
    qCInfo(lcApp) << "device secret stored without operating-system protection";
    return kPlainPrefix + QString::fromLatin1(secret.toUtf8().toBase64());
}

QString AppState::appUrl() const
{
    const QString url = stringValue(kAppUrl);
    return url.trimmed().isEmpty() ? QStringLiteral("/sign/app/documents/") : url;
}

QJsonObject AppState::license() const
{
    return m_root.value(kLicense).toObject();
}

QJsonObject AppState::signerProfile() const
{
    QJsonObject profile = defaultSignerProfile();
    const QJsonObject stored = m_root.value(kSignerProfile).toObject();
    for (auto it = stored.begin(); it != stored.end(); ++it)
        profile.insert(it.key(), it.value());
    if (!visualPositions().contains(profile.value(kVisualPosition).toString()))
        profile.insert(kVisualPosition, visualPositions().first());
    if (!profile.value(kVisualPositions).isArray())
        profile.insert(kVisualPositions, QJsonArray());
    return profile;
}

QString AppState::localRoot() const
{
    const QString stored = stringValue(kLocalRoot).trimmed();
    if (!stored.isEmpty())
        return stored;
    QString base = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    if (base.isEmpty())
        base = QDir::homePath();
    return base + QStringLiteral("/Vantro Sign");
}

QString AppState::theme() const
{
    return stringValue(kTheme) == kDark ? kDark : QStringLiteral("light");
}

QJsonObject AppState::localDeleteSettings() const
{
    const QJsonObject stored = m_root.value(kDeleteSettings).toObject();
    QString folder =
        sanitizeFolderName(stored.value(QStringLiteral("deletedFolderName")).toString());
    if (folder.isEmpty())
        folder = QStringLiteral("Istrinta");
    const QJsonValue byMonth = stored.value(QStringLiteral("groupDeletedByMonth"));
    return {
        {QStringLiteral("deletedFileAction"),
         normalizedDeleteAction(stored.value(QStringLiteral("deletedFileAction")).toString())},
        {QStringLiteral("deletedFolderName"), folder},
        {QStringLiteral("groupDeletedByMonth"), byMonth.isBool() ? byMonth.toBool() : true},
    };
}

// The name becomes a folder under the local root on every platform, so it loses whatever
// Windows forbids in a file name, and may not climb out of the root ("..") or end in a dot.
QString AppState::sanitizeFolderName(const QString& name)
{
    return windowsSafeName(name, kMaxDeletedFolderNameLength);
}

bool AppState::isActivated() const
{
    return !deviceId().isEmpty() && !deviceSecret().isEmpty() && !workspaceId().isEmpty();
}

bool AppState::setLocalRoot(const QString& path)
{
    const QString trimmed = path.trimmed();
    if (!trimmed.isEmpty())
        m_root.insert(kLocalRoot, QDir::fromNativeSeparators(trimmed));
    // A root that cannot be created is reported by ensureLocalRoot; the setting is still stored.
    ensureLocalRoot();
    return commit();
}

bool AppState::ensureLocalRoot()
{
    const QString root = localRoot();
    if (QFileInfo(root).isDir() || QDir().mkpath(root))
        return true;
    return reportError(QStringLiteral("Could not create local root: %1").arg(root));
}

bool AppState::setTheme(const QString& value)
{
    m_root.insert(kTheme, value == kDark ? kDark : QStringLiteral("light"));
    return commit();
}

bool AppState::setLocalDeleteSettings(const QJsonObject& settings)
{
    m_root.insert(kDeleteSettings, settings);
    return commit();
}

bool AppState::setSignerVisualPosition(const QString& position)
{
    if (!visualPositions().contains(position))
        return false;
    QJsonObject profile = signerProfile();
    profile.insert(kVisualPosition, position);
    profile.insert(QStringLiteral("visual_position_picked"), true);
    profile.insert(kVisualPositions, QJsonArray::fromStringList(visualPositions()));
    m_root.insert(kSignerProfile, profile);
    // The activation record carries the profile the service returned; keep the two in step.
    const QJsonValue activation = m_root.value(kActivation);
    if (activation.isObject()) {
        QJsonObject record = activation.toObject();
        record.insert(QStringLiteral("signer_profile"), profile);
        m_root.insert(kActivation, record);
    }
    return commit();
}

bool AppState::setDeviceIdentity(const QString& deviceId, const QString& secret,
                                 const QString& workspaceId, const QJsonObject& activation)
{
    Activation grant;
    grant.deviceId = deviceId;
    grant.secret = secret;
    grant.workspaceId = workspaceId;
    grant.appUrl = stringValue(kAppUrl);
    grant.apiBase = stringValue(kApiBase);
    grant.license = m_root.value(kLicense).toObject();
    grant.signerProfile = m_root.value(kSignerProfile).toObject();
    grant.record = activation.isEmpty() ? m_root.value(kActivation).toObject() : activation;
    return applyActivation(grant);
}

bool AppState::applyActivation(const Activation& grant)
{
    const QJsonObject before = m_root;
    const QString cachedProtected = m_cachedProtected;
    const QString cachedSecret = m_cachedSecret;
    const QString previous = stringValue(kSecret);
    const QString stored = protectSecret(grant.secret);
    const auto setText = [this](const QString& key, const QString& value) {
        if (value.isEmpty())
            m_root.remove(key);
        else
            m_root.insert(key, value);
    };
    m_root.insert(kDeviceId, grant.deviceId);
    m_root.insert(kSecret, stored);
    m_root.insert(kWorkspaceId, grant.workspaceId);
    setText(kAppUrl, grant.appUrl);
    m_root.insert(kApiBase,
                  grant.apiBase.isEmpty() ? QStringLiteral("/sign/api/v1/") : grant.apiBase);
    m_root.insert(kLicense, grant.license);
    m_root.insert(kSignerProfile, grant.signerProfile);
    if (!grant.record.isEmpty())
        m_root.insert(kActivation, grant.record);
    m_cachedProtected = stored;
    m_cachedSecret = grant.secret;
    if (!commit()) {
        m_root = before;
        m_cachedProtected = cachedProtected;
        m_cachedSecret = cachedSecret;
        if (m_secrets && stored != previous)
            m_secrets->discard(stored);
        return false;
    }
    // Only once the file no longer points at it may the old keyring entry go.
    if (m_secrets && !previous.isEmpty() && previous != stored)
        m_secrets->discard(previous);
    return true;
}

OrderedObject AppState::status(const OrderedObject& helper) const
{
    OrderedObject out;
    out.insert(QStringLiteral("version"), QString::fromLatin1(config::kApplicationVersion));
    out.insert(QStringLiteral("activated"), isActivated());
    out.insert(QStringLiteral("localRoot"), localRoot());
    out.insert(QStringLiteral("theme"), theme());
    out.insert(QStringLiteral("license"), license());
    out.insert(QStringLiteral("signerProfile"), signerProfile());
    const auto flag = [&](const char* key, bool fallback) {
        out.insert(QLatin1String(key), helper.value(QLatin1String(key), fallback).toBool());
    };
    const auto text = [&](const char* key, const char* fallback) {
        out.insert(QLatin1String(key),
                   helper.value(QLatin1String(key), QLatin1String(fallback)).toString());
    };
    flag("helperAvailable", true);
    flag("helperBackgroundRunning", false);
    text("helperRuntime", "next");
    text("helperRuntimeVersion", "");
    text("helperRuntimePath", "");
    flag("usbSignBatchNative", false);
    return out;
}

} // namespace vantro
