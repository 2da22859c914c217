#pragma once

#include <QByteArray>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

namespace vantro::platform {

// The program that checks an installer's Authenticode signature on this platform.
// Windows: "powershell.exe" running Get-AuthenticodeSignature, the path in
// VANTRO_SIGN_UPDATE_PATH. Linux: "osslsigncode verify" against `trustStore` (a PEM bundle of
// the roots trusted for code signing and for timestamps).
struct SignatureCommand
{
    QString program;
    QStringList arguments;
    QProcessEnvironment environment;
};

SignatureCommand signatureCommand(const QString& installerPath, const QString& trustStore);

// What the check printed, in one shape for both platforms.
struct SignatureReport
{
    bool readable = false; // the output had the expected form
    QString status;        // "Valid" when the signature and its chain verified
    QString signerName;    // the signer certificate's simple (common) name
    bool timestamped = false;
};

// Reads the check's standard output. The output is what counts, not only the exit code: on
// Linux a timestamp that fails to verify still exits 0.
SignatureReport readSignatureReport(const QByteArray& standardOutput);

} // namespace vantro::platform
