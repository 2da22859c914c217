#pragma once

#include "Certificates.h"
#include "Pkcs11Module.h"

#include <functional>
#include <memory>
#include <QList>
#include <vector>

namespace vantro::host {

struct TokenCertificate
{
    QByteArray der;
    QByteArray id; // CKA_ID, shared with its private key
    QString label;
    CertificateInfo info;
};

// A read-only session on one token; closed when destroyed.
class TokenSession
{
public:
    TokenSession(const Pkcs11Module& module, ck_slot_id_t slot);
    ~TokenSession();
    TokenSession(const TokenSession&) = delete;
    TokenSession& operator=(const TokenSession&) = delete;

    ck_slot_id_t slot() const { return m_slot; }
    struct ck_token_info tokenInfo() const { return m_module.tokenInfo(m_slot); }
    QList<TokenCertificate> certificates();
    // The private key whose CKA_ID is `id`, or 0. Private objects may show only after login.
    ck_object_handle_t privateKey(const QByteArray& id);
    bool alwaysAuthenticate(ck_object_handle_t key);
    // An empty PIN logs in through the reader's PIN pad (protected authentication path).
    void login(unsigned long userType, const QByteArray& pin);
    // `afterInit` runs between C_SignInit and C_Sign: the context-specific login of keys that
    // demand one per signature.
    QByteArray sign(ck_object_handle_t key, const struct ck_mechanism& mechanism,
                    const QByteArray& data, const std::function<void()>& afterInit = {});

private:
    std::vector<ck_object_handle_t> findObjects(struct ck_attribute* query, unsigned long count);
    QByteArray attribute(ck_object_handle_t object, ck_attribute_type_t type);

    const Pkcs11Module& m_module;
    struct ck_function_list* m_api;
    ck_slot_id_t m_slot;
    ck_session_handle_t m_session = 0;
};

// Every loaded module and the tokens in them, looked through for the certificate a command
// needs.
class Middleware
{
public:
    // Loads every candidate module; "ERR_VANTRO_MIDDLEWARE_MISSING" when none loads.
    Middleware();
    struct Found
    {
        std::shared_ptr<TokenSession> session;
        TokenCertificate certificate;
    };
    // The best certificate for `role` on any token. "PKCS11_TOKEN_NOT_PRESENT" without a token,
    // "ERR_VANTRO_NO_SIGNING_CERTIFICATE" or "ERR_VANTRO_NO_AUTHENTICATION_CERTIFICATE" when
    // no token holds one.
    Found find(CertificateRole role);
    // The token holding exactly this certificate.
    Found findCertificate(const QByteArray& der);

private:
    template <typename Score>
    Found best(const Score& score, const QString& missingCode, const QString& missingMessage);

    std::vector<std::unique_ptr<Pkcs11Module>> m_modules;
};

} // namespace vantro::host
