// Lets an allocation by new fail, as it does when memory runs out.
//
// Only programs that use it are affected. What the fakes of this folder take for themselves never fails.
#ifndef QUARRIN_TESTS_FAILING_NEW_H
#define QUARRIN_TESTS_FAILING_NEW_H

#include <cstdint>
#include <functional>
#include <vector>

/// Allocations of this thread until the one that fails; 0 or less: none does.
inline thread_local int64_t t_s64UntilFailingNew = 0;

/// Calls fnCall with its s32Nth allocation (1: the first one) failing, of this thread alone. False: it made fewer.
bool TEST_WithFailingNew(int32_t s32Nth, const std::function<void()> &fnCall);

/// Calls fnCall with its first allocation failing, with its second one, and so on until none fails. All that it returned; the
/// last is what it returns with memory.
std::vector<uint32_t> TEST_FailEachNew(const std::function<uint32_t()> &fnCall);

/// For its own lifetime allocations are a fake's: they neither count nor fail.
class FAKES_OWN_NEW
{
public:
    FAKES_OWN_NEW() : m_s64Before(t_s64UntilFailingNew)
    {
        t_s64UntilFailingNew = 0;
    }
    ~FAKES_OWN_NEW()
    {
        t_s64UntilFailingNew = m_s64Before;
    }
    FAKES_OWN_NEW(const FAKES_OWN_NEW &) = delete;
    FAKES_OWN_NEW &operator=(const FAKES_OWN_NEW &) = delete;

private:
    int64_t m_s64Before;
};

#endif
