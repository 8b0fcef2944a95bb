#pragma once

namespace collector {

/// Exit statuses of zol_collector.
enum EExit {
    EXIT_OK = 0,      ///< ended by a signal; --status, --help
    EXIT_FAILED = 1,  ///< the spool or the key store refuses this account
    EXIT_USAGE = 2,   ///< an argument, or a line of the configuration file, is wrong
    EXIT_SECOND = 3   ///< another collector works on this spool
};

}  // namespace collector
