// A seccomp filter turns every system call of the thread into SIGSYS. The handler notes the number and performs the
// call itself, by the one instruction that the filter lets through.

#include "tests/support/systemCalls.h"
#include "tests/support/environment.h"

#include <thread>

#ifdef __x86_64__

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <ucontext.h>

// performSystemCall(number, arguments): a system call without errno. The kernel reports the address behind the
// instruction, which is `performedSystemCall`.
asm(R"(
    .text
    .type performSystemCall, @function
performSystemCall:
    mov %rdi, %rax
    mov %rsi, %r11
    mov 0(%r11), %rdi
    mov 8(%r11), %rsi
    mov 16(%r11), %rdx
    mov 24(%r11), %r10
    mov 32(%r11), %r8
    mov 40(%r11), %r9
    syscall
performedSystemCall:
    ret
    .size performSystemCall, . - performSystemCall
)");
extern "C" long performSystemCall(long number, const long* arguments);
extern "C" const char performedSystemCall[];

namespace {

struct Recording
{
    bool on = false;
    size_t count = 0;
    std::array<int, 1000> numbers{};
};

constinit thread_local Recording recording;

void recordAndPerform(int, siginfo_t* info, void* context)
{
    if (recording.on && recording.count < recording.numbers.size())
        recording.numbers[recording.count++] = info->si_syscall;
    auto& registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    const long arguments[] = {registers[REG_RDI], registers[REG_RSI], registers[REG_RDX],
                              registers[REG_R10], registers[REG_R8],  registers[REG_R9]};
    registers[REG_RAX] = performSystemCall(info->si_syscall, arguments);
}

void installFilter()
{
    const auto passed = reinterpret_cast<uintptr_t>(performedSystemCall);
    constexpr auto address = static_cast<uint32_t>(offsetof(seccomp_data, instruction_pointer));
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, address),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(passed), 0, 2),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, address + 4),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(passed >> 32), 3, 0),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(offsetof(seccomp_data, nr))),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_rt_sigreturn, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {static_cast<unsigned short>(std::size(filter)), filter};
    struct sigaction action = {};
    action.sa_sigaction = recordAndPerform;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    if (sigaction(SIGSYS, &action, nullptr) != 0 || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
        std::abort();
}

} // namespace

namespace support {

std::vector<int> systemCallsOf(const std::function<void()>& function)
{
    std::vector<int> result;
    // The filter ends with the thread.
    std::thread([&] {
        installFilter();
        recording.on = true;
        function();
        recording.on = false;
        result.assign(recording.numbers.begin(), recording.numbers.begin() + static_cast<ptrdiff_t>(recording.count));
    }).join();
    return result;
}

const char* systemCallsHidden()
{
    return sanitized ? "the sanitizer's system calls hide the program's" : nullptr;
}

} // namespace support

#else

namespace support {

std::vector<int> systemCallsOf(const std::function<void()>& function)
{
    std::thread(function).join();
    return {};
}

const char* systemCallsHidden()
{
    return emulated ? "the emulator knows no filter of system calls" : "system calls are recorded on x86-64 only";
}

} // namespace support

#endif
