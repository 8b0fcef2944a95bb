#pragma once
/// The log and the assertions of the task runtime.
///
/// The runtime log is set up by the first line, from a small text file (ZOL_PATH_GST_LOG_CONF):
///
///     UDP            where lines go: PRINT (standard output), UDP, or DLOG (the platform log)
///     10.0.0.2       a destination for UDP; any line with a "." is one, at most 256 of them
///     Z:EDI          the line types to emit, each letter once: their numbers are added; "*" is all of them
///
/// The module line counts when it begins with "Z" or "*", and nothing behind it is read. Any other line,
/// the empty one included, chooses DLOG. Every line ends at its first lower-case "r". Without a file, or
/// without types in it, lines of the types E, D and G go to the platform log.
#include <atomic>
#include <cstdint>
#include <cstdio>

/// Where runtime log lines go.
enum ELogWay : std::int32_t {
    LOG_WAY_PRINT = 0,  ///< standard output
    LOG_WAY_UDP = 1,    ///< datagrams to port 419 of every address in g_ipList
    LOG_WAY_DLOG = 2    ///< platform log, main buffer, tag "ATSC3GST"
};

/// Type of a line: one bit each.
enum ELogType : std::uint32_t {
    LOG_TYPE_E = 1,  ///< error; the only one the platform log shows as ERROR, the others are INFO
    LOG_TYPE_D = 2,
    LOG_TYPE_I = 4,
    LOG_TYPE_G = 8
};

/// Destinations that fit g_ipList; further ones in the file are ignored.
constexpr int kMaxLogAddresses = 256;

/// @name State of the runtime log
/// Written by Initialize, g_LoadLogConfig and Finalize. Any thread may read it.
/// @{
extern std::atomic<std::uint32_t> g_logType;   ///< mask of ELogType: the types that are emitted
extern std::atomic<ELogWay> g_logWay;          ///< where lines go
extern char* g_ipList[kMaxLogAddresses];       ///< dotted IPv4 addresses, each a heap array of 16 bytes
                                               ///< owned by the list; the first null ends it
extern std::atomic<std::int32_t> g_ipListIdx;  ///< number of addresses
extern std::atomic<std::uint64_t> g_seqNum;    ///< sequence number of the next line
extern std::atomic<std::int32_t> g_sockfd;     ///< UDP socket, -1 while none is open
extern std::atomic<bool> g_loaded;             ///< the configuration has been read
extern const char* const g_module;             ///< module tag of every line
/// @}

/// Emits one line through the configured way, sets the log up first when need be. `type` is an ELogType.
/// Any thread; allocates nothing; a line is cut at 2046 bytes. A type that is filtered out costs one flag
/// test and one mask and takes no sequence number.
void _PRINT(unsigned type, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// The same line (its sequence number unpadded), always by UDP.
void _PRINT_UDP_F(unsigned type, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// Delivers one finished line. The platform log drops a line that has not exactly one type; failures to
/// send are ignored.
void SendDebugMsgs(ELogWay way, ELogType type, const char* text);

/// Letter of a type; '?' when it is not exactly one.
char _TYPE_TO_CHAR(ELogType type);

/// Resets the log's state and reads the configuration. Addresses of an earlier configuration are forgotten,
/// not freed: call Finalize first. The result means nothing.
int Initialize();
/// Frees the addresses and, when lines go out by UDP, closes the socket. The next line sets the log up
/// afresh. Runs by itself at process exit.
void Finalize();
/// Reads the configuration file into the state; a file that cannot be opened changes nothing. The result
/// means nothing.
int g_LoadLogConfig();

/// POSIX id of the calling thread.
unsigned long ThreadId();

/// Reports a failed assertion in the runtime log and on the console, with thread and call stack. Then the
/// process crashes on purpose (a core dump shows where), unless "/etc/release" can be opened for update:
/// such an image carries on and the function returns. It also returns, without report and crash, when the
/// path of the console is not canonical.
void __ASSERT_ATSC3(const char* expression, const char* file, int line);

/// Reports a failed assertion on standard output. Then crashes in the same way, or on an image with
/// "/etc/release" ends the process with exit status 0.
[[noreturn]] void __ASSERT(const char* expression, const char* file, int line);

/// __ASSERT_ATSC3 when `holds` is false. Returns `holds`, so that the caller leaves what an image that
/// carries on must not run into: `if (!AssertAtsc3(m != nullptr, "m", "core/src/Mutex", 48)) return false;`
/// The source paths and lines are fixed numbers: they identify the check in field reports.
inline bool AssertAtsc3(bool holds, const char* expression, const char* source, int line) {
    if (!holds) {
        __ASSERT_ATSC3(expression, source, line);
    }
    return holds;
}

/// __ASSERT when `holds` is false.
inline void AssertExit(bool holds, const char* expression, const char* source, int line) {
    if (!holds) {
        __ASSERT(expression, source, line);
    }
}

/// Logs the check that failed when `passed` is false. Returns `passed`: the caller releases what it has
/// built so far and fails.
[[nodiscard]] inline bool _CHECK(bool passed, const char* expression, const char* source, int line) {
    if (!passed) {
        _PRINT(LOG_TYPE_E, "_CHECK FAIL: %s:%d, %s", source, line, expression);
    }
    return passed;
}

/// True when `path` is canonical already: absolute, no links, no "." or ".." in it. Says on standard output
/// why not. `path` is opened as it is: map a device path first.
[[nodiscard]] bool check_realpath(const char* path);

/// Opens a file through a canonical path only; null otherwise, also for a link. A path that does not exist
/// is handed to fopen, so that `mode` may create the file. `path` is opened as it is: map a device path
/// first. The caller owns the stream.
[[nodiscard]] std::FILE* fopen_with_realpath(const char* path, const char* mode);
