#include "daemon/ServiceBringUp.h"

namespace Daemon {

void BringUpService(sd_event* /*loop*/) {
    // The controller and the D-Bus server are brought up here once they exist.
}

}  // namespace Daemon
