#pragma once

namespace upload {

/// Exit statuses of zol_upload. On its standard output stands "SECONDS REASON" where there is a reason:
/// SECONDS is how long the server wishes not to be asked again, or 0.
enum EExit {
    EXIT_DONE = 0,     ///< the server has it
    EXIT_REFUSED = 1,  ///< the server does not want it, now or later
    EXIT_USAGE = 2,    ///< an argument is wrong
    EXIT_AGAIN = 3,    ///< it may work another time
    EXIT_REPORT = 4    ///< the same, and it is the report that cannot be read: others may go first
};

}  // namespace upload
