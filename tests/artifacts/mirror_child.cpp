// Retries the mirror queue of the profile it is given and exits: the process the crash test
// kills in the middle of a mirror write.
#include "api/SignApiClient.h"
#include "app/AppState.h"
#include "artifacts/MirrorQueue.h"
#include "store/LocalStore.h"

#include <cstdio>
#include <QCoreApplication>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s <device.json> <service origin> <application name>\n",
                     argv[0]);
        return 2;
    }
    // The data folder, and with it local.db, is named after the application.
    QCoreApplication::setApplicationName(QString::fromLocal8Bit(argv[3]));
    vantro::AppState state(QString::fromLocal8Bit(argv[1]));
    vantro::SignApiClient api(&state);
    api.setBaseUrl(QString::fromLocal8Bit(argv[2]));
    vantro::LocalStore store(&state);
    std::printf("%s\n", vantro::MirrorQueue(store, api).retry().toJson().constData());
    return 0;
}
