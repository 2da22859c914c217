#include "platform/InstallerSignature.h"

#include <QRegularExpression>

namespace vantro::platform {

namespace {

// The common name in an OpenSSL one-line subject ("/CN=Vantro UAB/O=Vantro UAB").
QString commonName(const QString& subject)
{
    static const QRegularExpression cn(QStringLiteral("(?:^|/)CN=([^/]*)"));
    return cn.match(subject).captured(1).trimmed();
}

// The subject of the first signer listed under "Signer's certificate:".
QString signerSubject(const QStringList& lines)
{
    bool inSignerSection = false;
    for (const QString& line : lines) {
        const QString text = line.trimmed();
        if (text == QLatin1String("Signer's certificate:"))
            inSignerSection = true;
        else if (inSignerSection && text.startsWith(QLatin1String("Subject:")))
            return text.mid(8).trimmed();
    }
    return {};
}

} // namespace

SignatureCommand signatureCommand(const QString& installerPath, const QString& trustStore)
{
    return {QStringLiteral("osslsigncode"),
            {QStringLiteral("verify"), QStringLiteral("-in"), installerPath,
             QStringLiteral("-CAfile"), trustStore, QStringLiteral("-TSA-CAfile"), trustStore},
            QProcessEnvironment::systemEnvironment()};
}

SignatureReport readSignatureReport(const QByteArray& standardOutput)
{
    const QStringList lines = QString::fromUtf8(standardOutput).split(QLatin1Char('\n'));
    const auto has = [&](const char* line) {
        return lines.contains(QString::fromLatin1(line)) ||
               lines.contains(QString::fromLatin1(line) + QLatin1Char('\r'));
    };
    SignatureReport report;
    report.readable = has("Succeeded") || has("Failed");
    report.status = has("Signature verification: ok") && has("Succeeded")
                        ? QStringLiteral("Valid")
                        : QStringLiteral("NotValid");
    report.signerName = commonName(signerSubject(lines));
    report.timestamped = has("Timestamp Server Signature verification: ok");
    return report;
}

} // namespace vantro::platform
