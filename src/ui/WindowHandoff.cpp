#include "app/Handoff.h"
#include "ui/SignAppWindow.h"

namespace vantro {

// A command file may only ever show the window or hand an activation link to its handler.
void SignAppWindow::receiveHandoff()
{
    HandoffActions actions;
    actions.link = [this](const QString& link) {
        handleActivationLink(link);
    };
    actions.show = [this] {
        showAndRaise();
    };
    vantro::receiveHandoff(actions);
}

} // namespace vantro
