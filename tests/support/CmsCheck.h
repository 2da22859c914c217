#pragma once

// What `openssl cms -verify` finds inside a signed package, trusting `caFile`; on failure, a text
// saying so, which a comparison with the expected content shows.
#include <QByteArray>
#include <QProcess>
#include <QString>

namespace vantro::testing {

inline QByteArray cmsVerifiedContent(const QString& package, const QString& caFile)
{
    QProcess openssl;
    openssl.start("openssl", {"cms", "-verify", "-inform", "DER", "-in", package, "-CAfile", caFile,
                              "-purpose", "any"});
    if (!openssl.waitForFinished(30000) || openssl.exitCode() != 0)
        return "openssl cms -verify failed: " + openssl.readAllStandardError();
    return openssl.readAllStandardOutput();
}

} // namespace vantro::testing
