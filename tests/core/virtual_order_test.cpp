#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "Task.h"

namespace {

/// Offset of a virtual operation in the table of its class. The C++ ABI of all machines that this is built
/// for keeps it in the first word of a pointer to member, on some of them plus one.
template <class Member>
std::uintptr_t Offset(Member member) {
    std::uintptr_t offset = 0;
    static_assert(sizeof(member) >= sizeof(offset), "a pointer to member holds a word and an adjustment");
    std::memcpy(&offset, &member, sizeof(offset));
    return offset;
}

/// Sees what is protected in a task.
class Seen : public CCTask {
public:
    static std::vector<std::uintptr_t> Order() {
        return {Offset(&CCThread::Destroy),    Offset(&Seen::t_SendTimerEvent),
                Offset(&Seen::t_ExecuteEvent), Offset(&Seen::t_OnStart),
                Offset(&Seen::t_OnIdle),       Offset(&Seen::t_OnStop),
                Offset(&CCTask::ExitLoop),     Offset(&Seen::OnExit)};
    }
};

TEST(VirtualOrder, OfATaskIsThatOfItsThreadAndThenItsOwnWithoutAGap) {
    constexpr std::uintptr_t kDestructor = 2;  // takes two places
    std::uintptr_t next = Offset(&CCThread::ThreadBody) + (1 + kDestructor) * sizeof(void*);
    for (const std::uintptr_t offset : Seen::Order()) {
        EXPECT_EQ(offset, next);
        next += sizeof(void*);
    }
}

}  // namespace
