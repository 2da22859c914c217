#pragma once

#include "Pkcs11.h"

#include <QLibrary>
#include <QList>
#include <QStringList>

namespace vantro::host {

// Where middleware is looked for: the module VANTRO_SIGN_PKCS11_MODULE names, alone, when it is
// set; otherwise every well-known location of OpenSC and the card vendors' modules that exists
// on this machine, in order.
struct ModuleCandidate
{
    QString path;
    QString source; // "environment" or "well-known"
};
QList<ModuleCandidate> moduleCandidates();
QStringList wellKnownModulePaths();

// One loaded and initialised PKCS#11 module; finalised and unloaded when destroyed.
class Pkcs11Module
{
public:
    // Throws "ERR_VANTRO_MIDDLEWARE_MISSING" when the file cannot be loaded as a module.
    explicit Pkcs11Module(const QString& path);
    ~Pkcs11Module();
    Pkcs11Module(const Pkcs11Module&) = delete;
    Pkcs11Module& operator=(const Pkcs11Module&) = delete;

    const QString& path() const { return m_path; }
    struct ck_function_list* api() const { return m_api; }
    struct ck_info info() const;
    // Slots holding an initialised token.
    QList<ck_slot_id_t> tokenSlots() const;
    // Every slot, present token or not.
    QList<ck_slot_id_t> allSlots() const;
    struct ck_token_info tokenInfo(ck_slot_id_t slot) const;

private:
    QList<ck_slot_id_t> slotList(bool tokenPresent) const;

    QString m_path;
    QLibrary m_library;
    struct ck_function_list* m_api = nullptr;
    bool m_initialized = false;
};

} // namespace vantro::host
