#include "Pkcs11Module.h"

#include "app/Errors.h"
#include "Logging.h"

#include <QFileInfo>

namespace vantro::host {

namespace {

[[noreturn]] void middlewareMissing(const QString& detail)
{
    throw CodedError(QStringLiteral("ERR_VANTRO_MIDDLEWARE_MISSING"), detail);
}

} // namespace

QStringList wellKnownModulePaths()
{
#if defined(Q_OS_WIN)
    return {
        QStringLiteral("C:/Windows/System32/opensc-pkcs11.dll"),
        QStringLiteral("C:/Program Files/OpenSC Project/OpenSC/pkcs11/opensc-pkcs11.dll"),
        QStringLiteral("C:/Windows/System32/mcard-pkcs11.dll"),
        QStringLiteral("C:/Windows/System32/eTPKCS11.dll"),
        QStringLiteral("C:/Windows/System32/IDPrimePKCS11.dll"),
        QStringLiteral("C:/Windows/System32/bit4xpki.dll"),
        QStringLiteral("C:/Windows/System32/cardos11.dll"),
    };
#elif defined(Q_OS_MACOS)
    return {
        QStringLiteral("/Library/OpenSC/lib/opensc-pkcs11.so"),
        QStringLiteral("/usr/local/lib/libeTPkcs11.dylib"),
        QStringLiteral("/usr/local/lib/libIDPrimePKCS11.dylib"),
        QStringLiteral("/usr/local/lib/bit4id/libbit4xpki.dylib"),
    };
#else
    return {
        QStringLiteral("/usr/lib/x86_64-linux-gnu/opensc-pkcs11.so"),
        QStringLiteral("/usr/lib/aarch64-linux-gnu/opensc-pkcs11.so"),
        QStringLiteral("/usr/lib/opensc-pkcs11.so"),
        QStringLiteral("/usr/lib64/opensc-pkcs11.so"),
        QStringLiteral("/usr/lib/libmcard-pkcs11.so"),
        QStringLiteral("/usr/lib/libeTPkcs11.so"),
        QStringLiteral("/usr/lib/libIDPrimePKCS11.so"),
        QStringLiteral("/usr/lib/bit4id/libbit4xpki.so"),
        QStringLiteral("/usr/lib/libcardos11.so"),
    };
#endif
}

QList<ModuleCandidate> moduleCandidates()
{
    const QString configured = qEnvironmentVariable("VANTRO_SIGN_PKCS11_MODULE").trimmed();
    if (!configured.isEmpty())
        return {{configured, QStringLiteral("environment")}};
    QList<ModuleCandidate> found;
    for (const QString& path : wellKnownModulePaths())
        if (QFileInfo(path).isFile())
            found.append({path, QStringLiteral("well-known")});
    return found;
}

Pkcs11Module::Pkcs11Module(const QString& path)
    : m_path(path)
    , m_library(path)
{
    if (!QFileInfo(path).isFile())
        middlewareMissing(QStringLiteral("No PKCS#11 module at %1.").arg(path));
    if (!m_library.load())
        middlewareMissing(m_library.errorString());
    using GetFunctionList = ck_rv_t (*)(struct ck_function_list**);
    const auto getFunctionList =
        reinterpret_cast<GetFunctionList>(m_library.resolve("C_GetFunctionList"));
    if (!getFunctionList || getFunctionList(&m_api) != CKR_OK || !m_api)
        middlewareMissing(QStringLiteral("%1 is not a PKCS#11 module.").arg(path));
    struct ck_c_initialize_args args = {};
    args.flags = CKF_OS_LOCKING_OK;
    const ck_rv_t rv = m_api->C_Initialize(&args);
    if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED)
        check(rv, "C_Initialize");
    m_initialized = rv == CKR_OK;
    qCDebug(lcHost).noquote() << "loaded PKCS#11 module" << path;
}

Pkcs11Module::~Pkcs11Module()
{
    if (m_initialized)
        m_api->C_Finalize(nullptr);
    // Left loaded: some modules start threads that outlive C_Finalize by a moment, and the
    // host exits right after its one request anyway.
}

struct ck_info Pkcs11Module::info() const
{
    struct ck_info info = {};
    check(m_api->C_GetInfo(&info), "C_GetInfo");
    return info;
}

QList<ck_slot_id_t> Pkcs11Module::slotList(bool tokenPresent) const
{
    unsigned long count = 0;
    check(m_api->C_GetSlotList(tokenPresent, nullptr, &count), "C_GetSlotList");
    QList<ck_slot_id_t> slotIds(qsizetype(count), 0);
    if (count)
        check(m_api->C_GetSlotList(tokenPresent, slotIds.data(), &count), "C_GetSlotList");
    slotIds.resize(qsizetype(count));
    return slotIds;
}

QList<ck_slot_id_t> Pkcs11Module::allSlots() const
{
    return slotList(false);
}

QList<ck_slot_id_t> Pkcs11Module::tokenSlots() const
{
    QList<ck_slot_id_t> initialised;
    for (ck_slot_id_t slot : slotList(true))
        if (tokenInfo(slot).flags & CKF_TOKEN_INITIALIZED)
            initialised.append(slot);
    return initialised;
}

struct ck_token_info Pkcs11Module::tokenInfo(ck_slot_id_t slot) const
{
    struct ck_token_info info = {};
    check(m_api->C_GetTokenInfo(slot, &info), "C_GetTokenInfo");
    return info;
}

} // namespace vantro::host
