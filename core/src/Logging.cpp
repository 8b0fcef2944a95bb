#include "Logging.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <string_view>

#include "base/handles.h"
#include "device_path.h"
#include "device_paths.h"
#include "dlog.h"
#include "platform_clock.h"

std::atomic<std::uint32_t> g_logType{0};
std::atomic<ELogWay> g_logWay{LOG_WAY_DLOG};
char* g_ipList[kMaxLogAddresses];
std::atomic<std::int32_t> g_ipListIdx{0};
std::atomic<std::uint64_t> g_seqNum{0};
std::atomic<std::int32_t> g_sockfd{-1};
std::atomic<bool> g_loaded{false};
const char* const g_module = "ZOL-->";

namespace {

constexpr std::size_t kLineSize = 2048;           // newline and terminator included
constexpr std::size_t kTextSize = kLineSize - 1;  // prefix and message with a terminator
constexpr std::size_t kAddressSize = 16;          // "255.255.255.255" and its terminator
constexpr std::uint64_t kStampWrap = 1000000000;  // microseconds: the stamp wraps every 1,000 seconds
constexpr int kPaddedSequence = 5;                // digits
constexpr std::uint16_t kUdpPort = 419;
constexpr std::uint32_t kAllTypes = LOG_TYPE_E | LOG_TYPE_D | LOG_TYPE_I | LOG_TYPE_G;
constexpr std::uint32_t kDefaultTypes = LOG_TYPE_E | LOG_TYPE_D | LOG_TYPE_G;
constexpr const char* kDlogTag = "ATSC3GST";

/// Guards the lazy loading. Usable before any constructor of this process has run.
using CLogInfoLoadMutex = std::mutex;

struct CLogInfo {
    ~CLogInfo() { Finalize(); }
};

CLogInfoLoadMutex g_loadMutex;
CLogInfo g_LogInfo;

// Guards addresses and socket. Only lines that go out by UDP pay for it.
std::mutex g_udpMutex;
// False from Finalize to the next Initialize: the slots still hold addresses that have been freed.
bool g_addressesValid = true;

int OpenUdpSocket() {
    return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

void SendUdp(const char* text) {
    const std::lock_guard lock(g_udpMutex);
    if (g_sockfd < 0) {
        g_sockfd = OpenUdpSocket();
    }
    if (!g_addressesValid) {
        return;
    }
    for (const char* address : g_ipList) {
        if (address == nullptr) {
            return;
        }
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(kUdpPort);
        to.sin_addr.s_addr = inet_addr(address);
        sendto(g_sockfd, text, std::strlen(text), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
    }
}

void SendDlog(ELogType type, const char* text) {
    if (_TYPE_TO_CHAR(type) != '?') {
        const int priority = type == LOG_TYPE_E ? DLOG_PRIORITY_ERROR : DLOG_PRIORITY_INFO;
        dlog_emit(DLOG_BUFFER_MAIN, priority, kDlogTag, "%s", text);
    }
}

void AddAddress(const char* text) {
    const std::lock_guard lock(g_udpMutex);
    const int index = g_ipListIdx.load();
    if (index >= kMaxLogAddresses) {
        return;
    }
    char* address = new (std::nothrow) char[kAddressSize]();
    if (address == nullptr) {
        return;
    }
    std::memcpy(address, text, strnlen(text, kAddressSize - 1));
    g_ipList[index] = address;
    g_ipListIdx.store(index + 1);
}

/// @param letters what stands behind the module's letter and colon
void SetTypes(const char* letters) {
    for (; *letters != '\0'; ++letters) {
        if (*letters == '*') {
            g_logType = kAllTypes;
            return;
        }
        for (const ELogType type : {LOG_TYPE_E, LOG_TYPE_D, LOG_TYPE_I, LOG_TYPE_G}) {
            if (*letters == _TYPE_TO_CHAR(type)) {
                g_logType += type;
            }
        }
    }
}

void SetWay(const char* line) {
    const auto begins = [line](const char* word) { return std::strncmp(line, word, std::strlen(word)) == 0; };
    if (begins("PRINT")) {
        g_logWay = LOG_WAY_PRINT;
    } else if (begins("UDP")) {
        g_logWay = LOG_WAY_UDP;
    } else {
        g_logWay = LOG_WAY_DLOG;
    }
}

/// False when the line was the module line that ends the reading.
bool ReadConfigLine(char* line) {
    // An "r", not a carriage return: deployed files are written with that in mind.
    std::replace_if(
        line, line + std::strlen(line), [](char c) { return c == '\n' || c == 'r'; }, '\0');
    if (std::strchr(line, '.') != nullptr) {
        AddAddress(line);
    } else if (std::strchr(line, ':') != nullptr) {
        if (line[0] != g_module[0] && line[0] != '*') {
            return true;
        }
        SetTypes(line + std::min<std::size_t>(2, std::strlen(line)));
        return false;
    } else {
        SetWay(line);
    }
    return true;
}

void LazyStart() {
    const std::lock_guard lock(g_loadMutex);
    if (!g_loaded.load(std::memory_order_relaxed)) {
        Initialize();
        g_loaded.store(true, std::memory_order_release);
    }
}

bool Wanted(unsigned type) {
    if (!g_loaded.load(std::memory_order_acquire)) {
        LazyStart();
    }
    return (type & g_logType.load(std::memory_order_relaxed)) != 0;
}

char* Write(char* out, std::string_view text) {
    return std::copy(text.begin(), text.end(), out);
}

/// In `width` places at least.
char* WriteNumber(char* out, std::uint64_t number, int base, int width, char fill) {
    std::array<char, 20> digits;
    const char* end = std::to_chars(digits.data(), digits.data() + digits.size(), number, base).ptr;
    out = std::fill_n(out, std::max<std::ptrdiff_t>(width - (end - digits.data()), 0), fill);
    return std::copy(static_cast<const char*>(digits.data()), end, out);
}

/// Apart from _PRINT so that a filtered line does not pay for the buffer.
__attribute__((noinline, format(printf, 4, 0))) void Emit(ELogWay way, unsigned type, int sequenceWidth,
                                                          const char* format, va_list arguments) {
    const auto lineType = static_cast<ELogType>(type);
    platform_time_t now{};
    platform_clock_realtime(&now);
    const auto stamp = static_cast<std::uint32_t>((static_cast<std::uint64_t>(now.seconds) * 1000000U +
                                                   static_cast<std::uint64_t>(now.nanoseconds) / 1000U) %
                                                  kStampWrap);
    const std::uint64_t sequence = g_seqNum.fetch_add(1, std::memory_order_relaxed);

    // "[%c][%08lx](%09u) [%*llu] %s ", which printf would need longer for than all the rest takes.
    char line[kLineSize];
    char* end = line;
    *end++ = '[';
    *end++ = _TYPE_TO_CHAR(lineType);
    end = Write(end, "][");
    end = WriteNumber(end, ThreadId(), 16, 8, '0');
    end = Write(end, "](");
    end = WriteNumber(end, stamp, 10, 9, '0');
    end = Write(end, ") [");
    end = WriteNumber(end, sequence, 10, sequenceWidth, ' ');
    end = Write(end, "] ");
    end = Write(end, g_module);
    *end++ = ' ';
    auto length = static_cast<std::size_t>(end - line);
    const int message = std::vsnprintf(line + length, kTextSize - length, format, arguments);
    if (message > 0) {
        length = std::min(length + static_cast<std::size_t>(message), kTextSize - 1);
    }
    line[length] = '\n';
    line[length + 1] = '\0';
    SendDebugMsgs(way, lineType, line);
}

}  // namespace

void _PRINT(unsigned type, const char* format, ...) {
    if (!Wanted(type)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    Emit(g_logWay.load(std::memory_order_relaxed), type, kPaddedSequence, format, arguments);
    va_end(arguments);
}

void _PRINT_UDP_F(unsigned type, const char* format, ...) {
    if (!Wanted(type)) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    Emit(LOG_WAY_UDP, type, 0, format, arguments);
    va_end(arguments);
}

void SendDebugMsgs(ELogWay way, ELogType type, const char* text) {
    switch (way) {
        case LOG_WAY_PRINT:
            std::printf("%s", text);
            std::fflush(stdout);  // the line may be the last one before a crash
            break;
        case LOG_WAY_UDP:
            SendUdp(text);
            break;
        case LOG_WAY_DLOG:
            SendDlog(type, text);
            break;
        default:
            break;
    }
}

char _TYPE_TO_CHAR(ELogType type) {
    constexpr char kLetters[] = "ED?I???G";
    return type >= LOG_TYPE_E && type <= LOG_TYPE_G ? kLetters[type - 1] : '?';
}

int Initialize() {
    {
        const std::lock_guard lock(g_udpMutex);
        g_logType = 0;
        g_seqNum = 0;
        g_sockfd = -1;
        g_ipListIdx = 0;
        g_loaded = false;
        g_logWay = LOG_WAY_DLOG;
        std::fill(std::begin(g_ipList), std::end(g_ipList), nullptr);
        g_addressesValid = true;
    }
    g_LoadLogConfig();
    if (g_logWay == LOG_WAY_UDP) {
        g_sockfd = OpenUdpSocket();
    }
    if (g_logType == 0) {
        // Also when the file chose UDP: without types it is taken for unfinished.
        g_logType = kDefaultTypes;
        g_logWay = LOG_WAY_DLOG;
    }
    return 0;
}

void Finalize() {
    const std::lock_guard lock(g_udpMutex);
    if (g_addressesValid) {
        std::for_each(g_ipList, g_ipList + g_ipListIdx.load(), [](char* address) { delete[] address; });
        g_addressesValid = false;
    }
    if (g_logWay == LOG_WAY_UDP && g_sockfd >= 0) {
        close(g_sockfd);
    }
    g_sockfd = -1;
    g_loaded = false;
}

int g_LoadLogConfig() {
    char path[4096];
    if (device_path_map(ZOL_PATH_GST_LOG_CONF, path, sizeof(path)) == 0) {
        return 0;
    }
    const base::FilePtr file(std::fopen(path, "rbe"));
    char line[256];
    while (file && std::fgets(line, sizeof(line), file.get()) != nullptr && ReadConfigLine(line)) {
    }
    return 0;
}

unsigned long ThreadId() {
    return static_cast<unsigned long>(pthread_self());
}
