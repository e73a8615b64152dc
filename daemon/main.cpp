// Bluetooth Low Energy daemon of the camera control unit. Takes no options.
#include "daemon/DaemonStart.h"

int main(int /*argc*/, char** /*argv*/) {
    return Daemon::Main();
}
