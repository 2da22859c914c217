#pragma once

// Test installers signed for real, generated in a temporary folder: a root that the update
// check is told to trust, code-signing certificates for the publisher and for someone else,
// and a timestamp authority under the same root. osslsigncode signs and timestamps offline.
#include "vantro_config.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

namespace vantro::test {

class SignedInstallers
{
public:
    // ForeignTimestamp: timestamped by an authority outside the trusted root; osslsigncode
    // still exits 0 for it.
    enum Kind { Valid, WrongSigner, Untimestamped, ForeignTimestamp, Tampered, Unsigned };

    // Empty when everything was generated; otherwise what failed.
    QString generate()
    {
        const QString extensions = file("ext.cnf");
        QFile cnf(extensions);
        if (!cnf.open(QIODevice::WriteOnly))
            return "cannot write " + extensions;
        cnf.write("[code]\nbasicConstraints=CA:FALSE\nkeyUsage=critical,digitalSignature\n"
                  "extendedKeyUsage=codeSigning\n"
                  "[tsa]\nbasicConstraints=CA:FALSE\nkeyUsage=critical,digitalSignature\n"
                  "extendedKeyUsage=critical,timeStamping\n");
        cnf.close();
        QString failure =
            run("openssl", {"req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout",
                            file("ca.key"), "-out", trustStore(), "-days", "30", "-subj",
                            "/CN=Vantro Test Root", "-addext", "basicConstraints=critical,CA:TRUE",
                            "-addext", "keyUsage=critical,keyCertSign,cRLSign"});
        for (const auto& [name, subject, section] :
             {std::tuple<QString, QString, QString>{"code", "/CN=" + publisher() + "/O=Test",
                                                    "code"},
              {"other", "/CN=Somebody Else", "code"},
              {"tsa", "/CN=Vantro Test TSA", "tsa"}}) {
            if (failure.isEmpty())
                failure = issue(name, subject, section);
        }
        return failure;
    }

    static QString publisher() { return QString::fromUtf8(config::kPublisherName); }

    // A feed manifest announcing `installer` as `version`, served from `origin`.
    static QJsonObject manifestFor(const QString& origin, const QString& version,
                                   const QByteArray& installer)
    {
        const QString name = "VantroSignNextSetup-" + version + ".exe";
        const QByteArray digest = QCryptographicHash::hash(installer, QCryptographicHash::Sha512);
        return {{"schemaVersion", 1},
                {"product", "Vantro Sign Next"},
                {"version", version},
                {"buildId", version + ".1"},
                {"installerFileName", name},
                {"installerUrl", origin + "/" + name},
                {"installerSize", installer.size()},
                {"sha512", QString(digest.toBase64())},
                {"publisher", publisher()}};
    }
    QString trustStore() const { return file("ca.pem"); }

    // The installer of `kind` as bytes.
    QByteArray bytes(Kind kind)
    {
        const QString out = file(QStringLiteral("installer-%1.exe").arg(int(kind)));
        QFile::remove(out);
        const QString pe = QStringLiteral(VANTRO_TEST_INSTALLER);
        QStringList sign{"sign", "-certs", file(kind == WrongSigner ? "other.pem" : "code.pem"),
                         "-key", file(kind == WrongSigner ? "other.key" : "code.key")};
        const QString tsa = kind == ForeignTimestamp ? "foreign-tsa" : "tsa";
        if (kind != Untimestamped)
            sign << "-TSA-certs" << file(tsa + "-chain.pem") << "-TSA-key" << file(tsa + ".key");
        sign << "-in" << pe << "-out" << out;
        if (kind == Unsigned)
            return read(pe);
        if (!run("osslsigncode", sign).isEmpty())
            return {};
        QByteArray signedBytes = read(out);
        if (kind == Tampered)
            signedBytes[signedBytes.size() / 3] = char(signedBytes.at(signedBytes.size() / 3) ^ 1);
        return signedBytes;
    }

private:
    QString file(const QString& name) const { return m_dir.filePath(name); }

    static QByteArray read(const QString& path)
    {
        QFile f(path);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
    }

    QString issue(const QString& name, const QString& subject, const QString& section)
    {
        QString failure =
            run("openssl", {"req", "-newkey", "rsa:2048", "-nodes", "-keyout", file(name + ".key"),
                            "-out", file(name + ".csr"), "-subj", subject});
        if (failure.isEmpty())
            failure = run("openssl",
                          {"x509", "-req", "-in", file(name + ".csr"), "-CA", trustStore(),
                           "-CAkey", file("ca.key"), "-CAcreateserial", "-out", file(name + ".pem"),
                           "-days", "30", "-extfile", file("ext.cnf"), "-extensions", section});
        if (failure.isEmpty() && name == QLatin1String("tsa")) {
            QFile chain(file("tsa-chain.pem"));
            if (!chain.open(QIODevice::WriteOnly))
                return "cannot write the TSA chain";
            chain.write(read(file("tsa.pem")) + read(trustStore()));
        }
        return failure;
    }

    static QString run(const QString& program, const QStringList& arguments)
    {
        QProcess process;
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(program, arguments);
        if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit ||
            process.exitCode() != 0)
            return program + " " + arguments.join(' ') + ": " +
                   QString::fromLocal8Bit(process.readAll()) + process.errorString();
        return {};
    }

    QTemporaryDir m_dir;
};

} // namespace vantro::test
