#include "platform/InstallerSignature.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace vantro::platform {

namespace {

const char kScript[] =
    "$ErrorActionPreference='Stop';$s=Get-AuthenticodeSignature -LiteralPath "
    "$env:VANTRO_SIGN_UPDATE_PATH;$n=if($null-ne $s.SignerCertificate){$s.SignerCertificate."
    "GetNameInfo([System.Security.Cryptography.X509Certificates.X509NameType]::SimpleName,$false)"
    "}else{''};[pscustomobject]@{Status=[string]$s.Status;SignerName=[string]$n;Timestamped=("
    "$null-ne $s.TimeStamperCertificate)}|ConvertTo-Json -Compress";

// -EncodedCommand takes Base64 of UTF-16LE text.
QString encodedScript()
{
    const QString script = QString::fromLatin1(kScript);
    QByteArray utf16;
    for (const QChar c : script) {
        utf16.append(char(c.unicode() & 0xff));
        utf16.append(char(c.unicode() >> 8));
    }
    return QString::fromLatin1(utf16.toBase64());
}

} // namespace

SignatureCommand signatureCommand(const QString& installerPath, const QString&)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("VANTRO_SIGN_UPDATE_PATH"), installerPath);
    return {QStringLiteral("powershell.exe"),
            {QStringLiteral("-NoProfile"), QStringLiteral("-NonInteractive"),
             QStringLiteral("-ExecutionPolicy"), QStringLiteral("Bypass"),
             QStringLiteral("-EncodedCommand"), encodedScript()},
            environment};
}

SignatureReport readSignatureReport(const QByteArray& standardOutput)
{
    const QJsonDocument document = QJsonDocument::fromJson(standardOutput.trimmed());
    if (!document.isObject())
        return {};
    const QJsonObject json = document.object();
    return {true, json.value(QStringLiteral("Status")).toString(),
            json.value(QStringLiteral("SignerName")).toString(),
            json.value(QStringLiteral("Timestamped")).toBool()};
}

} // namespace vantro::platform
