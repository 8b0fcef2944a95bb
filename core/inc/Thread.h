#pragma once
/// A named thread whose body is a virtual operation.
#include <memory>

/// The thread runs detached; Destroy waits for its body. Create and Destroy are called by one thread while
/// nobody else uses the object. The other operations assert that it is created and return false or 0 where
/// the assertion returns.
class CCThread {
public:
    /// Nice value of the thread: 10 * priority - 10; 0 for any value not named here.
    enum EPriorityType : int {
        PRIORITY_HIGH = 0,    ///< nice -10; needs the right to raise priorities
        PRIORITY_NORMAL = 1,  ///< nice 0
        PRIORITY_LOW = 2      ///< nice 10
    };

    /// Bytes of stack a thread gets at least, whatever was asked for. The requests of this system (8192) lie
    /// below what the C library accepts, and the deepest roads of a task need much more: a report written
    /// through jsoncpp, a key set through SQLite, a D-Bus call, and in each of them log lines that take up to
    /// 10 KiB of stack. It is address space only: pages that are never touched cost no memory.
    static constexpr unsigned long kStackFloor = 256UL * 1024;

    CCThread() = default;

    /// What the thread runs. Called once, on the new thread, after Create has set everything up.
    virtual void ThreadBody() = 0;
    /// Asserts that Destroy has been called.
    virtual ~CCThread();
    /// Waits until the body has returned, then releases everything. Called by the thread itself it is an
    /// assertion failure; where that returns it does not wait.
    virtual void Destroy();

    CCThread(const CCThread&) = delete;
    CCThread& operator=(const CCThread&) = delete;

    /// @param name      kept up to 16 characters, of which the kernel shows 15; not null
    /// @param stackSize bytes asked for; see kStackFloor
    /// False when the thread cannot be started; nothing is left behind then.
    [[nodiscard]] bool Create(const char* name, unsigned long stackSize);
    bool FlagCreate() const { return m != nullptr; }

    /// POSIX id of the thread; all bits set once the body has returned.
    unsigned long Id() const;
    /// POSIX id of the caller.
    static unsigned long SelfId();
    /// What Create was asked for, in bytes, cut to 32 bits.
    unsigned long StackSize() const;
    /// The priority that was set last; PRIORITY_NORMAL at first.
    EPriorityType Priority() const;
    /// Waits until the thread has started. False when the system refuses it.
    [[nodiscard]] bool SetPriority(EPriorityType priority);
    /// The same for the calling thread, whatever made it.
    [[nodiscard]] static bool SetSelfPriority(EPriorityType priority);

private:
    friend void TCThreadRun(void* thread);
    void m_ThreadRun();

    struct TSThread;
    // Shared with the thread: a thread that destroys itself still ends in order.
    std::shared_ptr<TSThread> m;
};

/// Runs the body of a CCThread on the calling thread, the way the thread made by Create does: waits for
/// Create to finish, announces its kernel id, takes the name.
void TCThreadRun(void* thread);
