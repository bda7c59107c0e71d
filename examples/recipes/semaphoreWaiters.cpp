#include "Quorvil/CountingSemaphore.h"
#include "Quorvil/Thread.h"
#include "Quorvil/ThreadSafeStream.h"

#include <atomic>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

std::atomic<pid_t> waiter{0};

void take(util::CountingSemaphore& paper)
try {
    waiter = gettid();
    paper.wait();
} catch (const util::CountingSemaphoreDeletingException&) {
    safeCout << "let go\n"; // the semaphore is not to be touched any more
}

/// Whether the kernel has put a thread of this process to sleep.
bool sleeps(pid_t thread)
{
    std::string word;
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    return stat >> word >> word >> word && word == "S"; // number, name, state
}

} // namespace

int main()
{
    std::optional<util::CountingSemaphore> paper(0);
    std::thread thread([&semaphore = *paper] { take(semaphore); });
    // The destructor lets go who waits. That nobody is about to call is the owner's to know; here the kernel tells.
    for (int looks = 0; looks < 5; looks = sleeps(waiter) ? looks + 1 : 0)
        util::Thread::msleep(10);
    paper.reset();
    thread.join();
}
