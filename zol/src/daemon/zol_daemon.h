#pragma once

namespace zol_daemon {

/// The daemon's whole life on the calling thread, the process's first: builds the long-lived objects in their
/// order, wires them to one another, serves the default main context until a signal ends it, and takes
/// everything down. Always 0; nothing is thrown.
int main();

}  // namespace zol_daemon
