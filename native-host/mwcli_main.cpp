// vantro-sign-mw-cli --diagnose: prints the middleware and reader report as one JSON object.
#include "Diagnose.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QTextStream>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QTextStream out(stdout);
    if (!QCoreApplication::arguments().contains(QStringLiteral("--diagnose"))) {
        QTextStream(stderr) << "usage: vantro-sign-mw-cli --diagnose\n";
        return 2;
    }
    out << QJsonDocument(vantro::host::diagnose()).toJson(QJsonDocument::Indented);
    return 0;
}
