#include "DevService.h"

#include <QCommandLineParser>
#include <QCoreApplication>
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
    parser.process(app);

    vantro::dev::DevService service;
    const quint16 port =
        service.listen(QHostAddress::LocalHost, parser.value(portOption).toUShort());
    QTextStream err(stderr);
    if (!port) {
        err << "vantro-dev-service: cannot listen on 127.0.0.1:" << parser.value(portOption)
            << "\n";
        return 1;
    }
    err << "vantro-dev-service: listening on http://127.0.0.1:" << port << "\n";
    err.flush();
    return app.exec();
}
