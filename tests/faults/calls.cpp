#include "calls.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/sched.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <vector>

namespace faults {
namespace {

/// What an argument of a call tells of it.
enum class About { Nothing, Path0, Path1, File0 };

struct KnownCall {
    long number;
    const char* name;
    Kind kind;
    About about;
};

constexpr KnownCall kCalls[] = {
    {SYS_open, "open", Kind::Open, About::Path0},
    {SYS_creat, "creat", Kind::Create, About::Path0},
    {SYS_openat, "openat", Kind::Open, About::Path1},
    {SYS_write, "write", Kind::Write, About::File0},
    {SYS_pwrite64, "pwrite", Kind::Write, About::File0},
    {SYS_writev, "writev", Kind::Write, About::File0},
    {SYS_fsync, "fsync", Kind::Sync, About::File0},
    {SYS_fdatasync, "fdatasync", Kind::Sync, About::File0},
    {SYS_rename, "rename", Kind::Rename, About::Path0},
    {SYS_renameat, "renameat", Kind::Rename, About::Path1},
    {SYS_renameat2, "renameat2", Kind::Rename, About::Path1},
    {SYS_mkdir, "mkdir", Kind::MakeFolder, About::Path0},
    {SYS_mkdirat, "mkdirat", Kind::MakeFolder, About::Path1},
    {SYS_ftruncate, "ftruncate", Kind::Truncate, About::File0},
    {SYS_close, "close", Kind::Close, About::File0},
    {SYS_mmap, "mmap", Kind::Map, About::Nothing},
    {SYS_clone, "clone", Kind::Start, About::Nothing},
    {SYS_clone3, "clone3", Kind::Start, About::Nothing},
    {SYS_fork, "fork", Kind::Start, About::Nothing},
    {SYS_vfork, "vfork", Kind::Start, About::Nothing},
    {SYS_socket, "socket", Kind::Socket, About::Nothing},
    {SYS_connect, "connect", Kind::Connect, About::Nothing},
    {SYS_accept, "accept", Kind::Accept, About::Nothing},
    {SYS_accept4, "accept4", Kind::Accept, About::Nothing},
    {SYS_sendto, "sendto", Kind::Send, About::Nothing},
    {SYS_sendmsg, "sendmsg", Kind::Send, About::Nothing},
};

/// A process that is killed before one of these is as if it had been killed before its next other call.
constexpr long kWaits[] = {SYS_futex,           SYS_poll,        SYS_ppoll,
                           SYS_nanosleep,       SYS_select,      SYS_pselect6,
                           SYS_epoll_wait,      SYS_epoll_pwait, SYS_clock_nanosleep,
                           SYS_restart_syscall, SYS_sched_yield, SYS_rt_sigreturn};

std::string TextAt(pid_t thread, unsigned long long address) {
    std::array<char, 256> text{};
    iovec here{text.data(), text.size() - 1};
    // NOLINTNEXTLINE(performance-no-int-to-ptr): an address of another process
    iovec there{reinterpret_cast<void*>(address), text.size() - 1};
    return process_vm_readv(thread, &here, 1, &there, 1, 0) > 0 ? text.data() : "?";
}

std::string FileOf(pid_t thread, unsigned long long descriptor) {
    const std::string link =
        "/proc/" + std::to_string(thread) + "/fd/" + std::to_string(static_cast<int>(descriptor));
    std::array<char, 512> target;
    const ssize_t length = readlink(link.c_str(), target.data(), target.size());
    return length > 0 ? std::string(target.data(), static_cast<std::size_t>(length)) : "";
}

/// A file or folder: neither a pipe, a socket nor a device.
bool IsStored(const std::string& file) {
    return file.rfind('/', 0) == 0 && file.rfind("/dev/", 0) != 0 && file.rfind("/proc/", 0) != 0;
}

std::optional<Kind> KindOf(const KnownCall& known, const user_regs_struct& registers,
                           const std::string& about) {
    if (known.kind == Kind::Open) {
        const unsigned long long flags = known.about == About::Path1 ? registers.rdx : registers.rsi;
        return (flags & O_CREAT) != 0 ? Kind::Create : Kind::Open;
    }
    if (known.about == About::File0 && !IsStored(about)) {
        return std::nullopt;
    }
    const bool isLog = known.kind == Kind::Write && about.find("/var/log/zol/") != std::string::npos;
    return isLog ? Kind::Log : known.kind;
}

}  // namespace

const char* const kKindNames[] = {"allocation", "open",    "create",    "write", "log",  "sync",
                                  "rename",     "mkdir",   "ftruncate", "close", "mmap", "thread",
                                  "socket",     "connect", "accept",    "send",  "any"};

Call Understand(pid_t thread, const user_regs_struct& registers) {
    for (const KnownCall& known : kCalls) {
        if (static_cast<unsigned long long>(known.number) != registers.orig_rax) {
            continue;
        }
        std::string about;
        switch (known.about) {
            case About::Path0:
                about = TextAt(thread, registers.rdi);
                break;
            case About::Path1:
                about = TextAt(thread, registers.rsi);
                break;
            case About::File0:
                about = FileOf(thread, registers.rdi);
                break;
            case About::Nothing:
                break;
        }
        return {KindOf(known, registers, about), std::string(known.name) + " " + about};
    }
    return {std::nullopt, "call " + std::to_string(registers.orig_rax)};
}

bool StopAtCalls(bool every) {
    const std::uint32_t listed = every ? SECCOMP_RET_ALLOW : SECCOMP_RET_TRACE;
    std::vector<sock_filter> filter = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    const auto list = [&](long number) {
        filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(number), 0, 1));
        filter.push_back(BPF_STMT(BPF_RET | BPF_K, listed));
    };
    if (every) {
        for (const long wait : kWaits) {
            list(wait);
        }
    } else {
        for (const KnownCall& call : kCalls) {
            list(call.number);
        }
    }
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, every ? SECCOMP_RET_TRACE : SECCOMP_RET_ALLOW));
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

}  // namespace faults
