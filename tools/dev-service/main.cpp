#include "DevService.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QTemporaryDir>
#include <QTextStream>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Local stand-in of the Vantro Sign service"));
    parser.addHelpOption();
    const QCommandLineOption portOption(QStringLiteral("port"),
                                        QStringLiteral("Port to listen on."),
                                        QStringLiteral("port"), QStringLiteral("8000"));
    parser.addOption(portOption);
    const QCommandLineOption dataOption(
        QStringLiteral("data"),
        QStringLiteral("Folder for the service's database (default: a temporary folder)."),
        QStringLiteral("folder"));
    parser.addOption(dataOption);
    parser.process(app);

    QTemporaryDir scratch;
    const QString dataDir = parser.isSet(dataOption) ? parser.value(dataOption) : scratch.path();
    vantro::dev::DevService service(dataDir);
    QTextStream err(stderr);
    if (!service.isReady()) {
        err << "vantro-dev-service: cannot open its database in " << dataDir << "\n";
        return 1;
    }
    const quint16 port =
        service.listen(QHostAddress::LocalHost, parser.value(portOption).toUShort());
    if (!port) {
        err << "vantro-dev-service: cannot listen on 127.0.0.1:" << parser.value(portOption)
            << "\n";
        return 1;
    }
    for (const QString& code : service.store().activationCodes())
        err << "vantro-dev-service: activation code: " << code << "\n";
    err << "vantro-dev-service: listening on http://127.0.0.1:" << port << "\n";
    err.flush();
    return app.exec();
}
