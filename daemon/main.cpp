// Bluetooth Low Energy daemon of the camera control unit. Takes no options but --help and --version.
#include "daemon/DaemonStart.h"

int main(int argc, char** argv) {
    return Daemon::Main(argc, argv);
}
