#pragma once

// A private pcscd for one test: its own reader configuration (vsmartcard's virtual reader on a
// free loopback port), its own socket handed over the way systemd does (LISTEN_FDS), started
// in the foreground and stopped by its process id. Cards are virtual_card processes.
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>

namespace vantro::test {

class PcscDaemon
{
public:
    static constexpr char kDaemon[] = "/usr/sbin/pcscd";
    static constexpr char kVirtualReaderDriver[] = "/usr/lib/pcsc/drivers/serial/libifdvpcd.so";

    // Empty when this machine can run the daemon; otherwise what is missing.
    static QString missingParts()
    {
        if (!QFile::exists(kDaemon))
            return QStringLiteral("pcscd is not installed (tools/install-deps.sh installs it)");
        if (!QFile::exists(kVirtualReaderDriver))
            return QStringLiteral("vsmartcard-vpcd is not installed (tools/install-deps.sh)");
        return {};
    }

    // The socket clients use.
    QString socketPath() const { return m_dir.filePath(QStringLiteral("pcscd.comm")); }

    // Points this process's PC/SC client at the private socket; the client library reads the
    // variable once, at its first call, so this comes first. Empty when ready, else what is
    // missing.
    QString serveThisProcess() const
    {
        qputenv("PCSCLITE_CSOCK_NAME", QFile::encodeName(socketPath()));
        return missingParts();
    }
    QString readerName() const { return QStringLiteral("Virtual PCD 00 00"); }

    // Starts pcscd with the virtual reader, or with no reader at all.
    bool start(bool withReader)
    {
        stop();
        const QString conf = m_dir.filePath(withReader ? "conf" : "empty");
        QDir().mkpath(conf);
        if (withReader && !writeReaderConf(conf))
            return false;
        const int listening = listeningSocket();
        if (listening < 0)
            return false;
        m_daemon = std::make_unique<QProcess>();
        m_daemon->setProcessChannelMode(QProcess::MergedChannels);
        m_daemon->setChildProcessModifier([listening] {
            if (listening == 3)
                ::fcntl(3, F_SETFD, 0);
            else
                ::dup2(listening, 3);
        });
        m_daemon->start(QStringLiteral("/bin/sh"),
                        {QStringLiteral("-c"),
                         QStringLiteral("LISTEN_PID=$$ LISTEN_FDS=1 exec \"$0\" -f -c \"$1\""),
                         QString::fromLatin1(kDaemon), conf});
        const bool started = m_daemon->waitForStarted(5000);
        ::close(listening); // the daemon holds it now; a dead daemon must refuse clients
        return started;
    }

    void stop()
    {
        if (!m_daemon)
            return;
        m_daemon->terminate();
        if (!m_daemon->waitForFinished(5000)) {
            m_daemon->kill();
            m_daemon->waitForFinished(5000);
        }
        m_daemon.reset();
        QFile::remove(socketPath());
    }

    QString output() const { return m_daemon ? QString::fromLocal8Bit(m_daemon->readAll()) : ""; }

    // Puts a card with `atrHex` into the virtual reader; it stays until removeCard().
    bool insertCard(const QString& atrHex)
    {
        removeCard();
        m_card = std::make_unique<QProcess>();
        m_card->start(QStringLiteral(VANTRO_VIRTUAL_CARD), {QString::number(m_port), atrHex});
        return m_card->waitForStarted(5000);
    }

    void removeCard()
    {
        if (!m_card)
            return;
        m_card->kill();
        m_card->waitForFinished(5000);
        m_card.reset();
    }

    ~PcscDaemon()
    {
        removeCard();
        stop();
    }

private:
    // vpcd listens on CHANNELID for the first slot and the next port for the second.
    bool writeReaderConf(const QString& conf)
    {
        m_port = freePortPair();
        QFile file(conf + QStringLiteral("/vpcd"));
        if (m_port == 0 || !file.open(QIODevice::WriteOnly))
            return false;
        file.write(QStringLiteral("FRIENDLYNAME \"Virtual PCD\"\nDEVICENAME /dev/null:%1\n"
                                  "LIBPATH %2\nCHANNELID %1\n")
                       .arg(m_port)
                       .arg(QString::fromLatin1(kVirtualReaderDriver))
                       .toUtf8());
        return true;
    }

    static quint16 freePortPair()
    {
        for (int attempt = 0; attempt < 20; ++attempt) {
            QTcpServer first;
            QTcpServer second;
            if (first.listen(QHostAddress::Any) &&
                second.listen(QHostAddress::Any, quint16(first.serverPort() + 1)))
                return first.serverPort();
        }
        return 0;
    }

    int listeningSocket()
    {
        const QByteArray path = QFile::encodeName(socketPath());
        QFile::remove(socketPath());
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (fd < 0 || size_t(path.size()) >= sizeof address.sun_path)
            return -1;
        qstrncpy(address.sun_path, path.constData(), sizeof address.sun_path);
        if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(fd, 16) != 0) {
            ::close(fd);
            return -1;
        }
        return fd;
    }

    QTemporaryDir m_dir;
    quint16 m_port = 0;
    std::unique_ptr<QProcess> m_daemon;
    std::unique_ptr<QProcess> m_card;
};

} // namespace vantro::test
