#include "DemoSigner.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

namespace vantro::dev {

namespace {

bool runOpenssl(const QStringList& arguments, QString* error)
{
    QProcess openssl;
    openssl.setProcessChannelMode(QProcess::MergedChannels);
    openssl.start(QStringLiteral("openssl"), arguments);
    if (openssl.waitForFinished(60000) && openssl.exitStatus() == QProcess::NormalExit &&
        openssl.exitCode() == 0)
        return true;
    *error = QStringLiteral("openssl %1: %2%3")
                 .arg(arguments.value(0), QString::fromLocal8Bit(openssl.readAll()),
                      openssl.errorString());
    return false;
}

} // namespace

DemoSigner::DemoSigner(const QString& dataDir)
    : m_dir(dataDir)
{
}

QString DemoSigner::certificatePath() const
{
    return QDir(m_dir).filePath(QStringLiteral("demo-signer.pem"));
}

bool DemoSigner::ensureKey(QString* error)
{
    const QString key = QDir(m_dir).filePath(QStringLiteral("demo-signer.key"));
    if (QFile::exists(key) && QFile::exists(certificatePath()))
        return true;
    return runOpenssl(
        {QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"),
         QStringLiteral("rsa:2048"), QStringLiteral("-nodes"), QStringLiteral("-keyout"), key,
         QStringLiteral("-out"), certificatePath(), QStringLiteral("-days"), QStringLiteral("3650"),
         QStringLiteral("-subj"), QStringLiteral("/CN=Vantro Sign Demo Signer/O=Vantro Demo"),
         QStringLiteral("-addext"), QStringLiteral("keyUsage=digitalSignature"),
         QStringLiteral("-addext"), QStringLiteral("extendedKeyUsage=emailProtection")},
        error);
}

QByteArray DemoSigner::sign(const QByteArray& document, QString* error) const
{
    QTemporaryDir work;
    const QString in = work.filePath(QStringLiteral("document"));
    const QString out = work.filePath(QStringLiteral("signed.p7m"));
    QFile input(in);
    if (!input.open(QIODevice::WriteOnly) || input.write(document) != document.size()) {
        *error = QStringLiteral("cannot stage the document");
        return {};
    }
    input.close();
    if (!runOpenssl({QStringLiteral("cms"), QStringLiteral("-sign"), QStringLiteral("-binary"),
                     QStringLiteral("-nodetach"), QStringLiteral("-outform"), QStringLiteral("DER"),
                     QStringLiteral("-in"), in, QStringLiteral("-signer"), certificatePath(),
                     QStringLiteral("-inkey"),
                     QDir(m_dir).filePath(QStringLiteral("demo-signer.key")),
                     QStringLiteral("-out"), out},
                    error))
        return {};
    QFile signedFile(out);
    return signedFile.open(QIODevice::ReadOnly) ? signedFile.readAll() : QByteArray();
}

} // namespace vantro::dev
