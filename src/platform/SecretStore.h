#pragma once

#include <QString>

namespace vantro::platform {

// Protection of the device secret by the operating system. Each platform writes stored texts
// with its own prefix ("dpapi:" on Windows, "secret-service:" with a Linux keyring) and reads
// back only its own; the portable "plain:" fallback is the caller's business.
class SecretStore
{
public:
    virtual ~SecretStore() = default;

    // The stored text for `secret`, or an empty string when this platform cannot protect it
    // right now (no keyring, keyring locked, API failure).
    virtual QString protect(const QString& secret) = 0;
    // The secret behind a stored text of this platform; empty for a foreign prefix or any failure.
    // Never blocks waiting for a user or an absent service.
    virtual QString unprotect(const QString& stored) = 0;
    // Forgets whatever the platform keeps for a stored text that is being replaced.
    virtual void discard(const QString& stored) = 0;
};

// The process-wide store of this platform; safe to use from any thread.
SecretStore& systemSecretStore();

} // namespace vantro::platform
