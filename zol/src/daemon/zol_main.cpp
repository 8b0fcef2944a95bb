#include "zol_daemon.h"

int main() {
    return zol_daemon::main();
}
