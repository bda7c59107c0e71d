// A seccomp filter turns every system call of the thread into SIGSYS. The handler notes the number and performs the
// call itself, by the one instruction that the filter lets through.

#include "tests/support/systemCalls.h"
#include "tests/support/allocationCount.h"
#include "tests/support/environment.h"

#include <gtest/gtest.h>

#include <csignal>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <thread>
#include <ucontext.h>

/// Where the kernel sees the handler's own call: behind its instruction.
extern "C" const char performedSystemCall[];

namespace {

/// The calls so far, in room that was taken in advance.
constinit thread_local std::vector<int>* recorded = nullptr;

#if defined(__x86_64__) && !QUORVIL_TEST_SANITIZED

constexpr bool recording = true;

void recordAndPerform(int, siginfo_t* info, void* context)
{
    if (recorded && recorded->size() < recorded->capacity())
        recorded->push_back(info->si_syscall);
    auto& registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    register auto r10 asm("r10") = registers[REG_R10];
    register auto r8 asm("r8") = registers[REG_R8];
    register auto r9 asm("r9") = registers[REG_R9];
    asm volatile("syscall\n"
                 ".globl performedSystemCall\n"
                 "performedSystemCall:"
                 : "=a"(registers[REG_RAX])
                 : "a"(info->si_syscall), "D"(registers[REG_RDI]), "S"(registers[REG_RSI]), "d"(registers[REG_RDX]),
                   "r"(r10), "r"(r8), "r"(r9)
                 : "rcx", "r11", "memory");
}

void installFilter()
{
    // The lower half of an address tells it well enough.
    const auto passed = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(performedSystemCall));
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, instruction_pointer)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, passed, 3, 0),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_rt_sigreturn, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {std::size(filter), filter};
    struct sigaction action = {};
    action.sa_sigaction = recordAndPerform;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    if (sigaction(SIGSYS, &action, nullptr) != 0 || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
        std::abort();
}

#else

constexpr bool recording = false;

void installFilter() {}

#endif

} // namespace

void support::expectNothingOfTheSystem(const std::function<void()>& function, const std::vector<int>& calls)
{
    std::vector<int> made;
    made.reserve(1000);
    // The filter ends with the thread.
    std::thread([&] {
        installFilter();
        recorded = &made;
        const AllocationCount count;
        function();
        EXPECT_EQ(count.allocations() + count.releases(), 0U);
        recorded = nullptr;
    }).join();
    EXPECT_TRUE(!recording || made == calls) << testing::PrintToString(made);
}
