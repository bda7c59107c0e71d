#include "Quorvil/GeneralException.h"
#include "Quorvil/ImplementedFunc.h"
#include "Quorvil/OvxFs.h"
#include "Quorvil/QuorvilFastAllocator.h"
#include "Quorvil/QuorvilGlobalsIntern.h"
#include "Quorvil/QuorvilInit.h"
#include "Quorvil/QuorvilLimitedBuffer.h"
#include "Quorvil/QuorvilLog.h"
#include "Quorvil/QuorvilPeriodicTimer.h"
#include "Quorvil/QuorvilSyncLockGroup.h"
#include "Quorvil/ThreadSafeStream.h"
#include "siblings/StampGate/StampGate.h"

#include <atomic>
#include <cerrno>
#include <iostream>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <string>

// All global objects of the library, in the order in which they come into being. One source holds them all, because
// only inside one source does the language fix that order; they end in the reverse order.

QUORVIL_LOG_GROUP("Noname");

void Quorvil_constructor()
{
    // The stamp library's answer is its own affair.
    stampGate(52);
}

namespace {

// Valid before any constructor has run.
constinit std::recursive_mutex console;
constinit pthread_key_t threadKey{};
constinit std::atomic<bool> keyCreated{false};

// The first initialiser of the library's own: only the streams' comes before it. No other source has one, so that
// everything may rely on the stamp.
[[maybe_unused]] const bool stamped = (Quorvil_constructor(), true);

/// Holds the thread key from load to unload.
class ThreadKey
{
public:
    ThreadKey()
    {
        const int result = create();
        keyCreated = result == 0;
        if (keyCreated)
            return;
        std::cerr << "Could not create threadKey! (error: ";
        writeError(result, ENOMEM, "ENOMEM\n");
    }

    ~ThreadKey()
    {
        // Without a key of our own the number may be somebody else's, now or from the deletion on.
        if (!keyCreated.exchange(false))
            return;
        const int result = pthread_key_delete(threadKey);
        if (result == 0)
            return;
        std::cerr << "Could not delete threadKey! (error: ";
        writeError(result, EINVAL, "EINVAL\n");
    }

    ThreadKey(const ThreadKey&) = delete;
    ThreadKey& operator=(const ThreadKey&) = delete;

private:
    /// Repeats over a passing shortage, but not for ever: at load there is no thread that could end one.
    static int create()
    {
        constexpr int repetitions = 1000;
        int result = pthread_key_create(&threadKey, quorvil::intern::threadKeyDestructor);
        for (int i = 0; result == EAGAIN && i < repetitions; ++i) {
            std::cout << "repeat pthread_key_create" << std::endl;
            result = pthread_key_create(&threadKey, quorvil::intern::threadKeyDestructor);
        }
        return result;
    }

    static void writeError(int error, int namedError, const char* name)
    {
        if (error == namedError)
            std::cerr << name;
        else
            std::cerr << std::to_string(error);
        std::cerr << ")" << std::endl;
    }
};

} // namespace

quorvil::SimpleHeap quorvil::SimpleHeap::singleton(0x100000);
std::shared_ptr<util::LimitedBuffer> util::gl_pTrenvikLimitedBuffer;
quorvil::sync::LockGroup quorvil::sync::gl_trenvikLockGroup;
constinit std::atomic<bool> util::GeneralException::defaultSilent{false};

namespace {

const ovxfsvm::DrivePathManager drivePaths;

} // namespace

constinit std::mutex ovx::ImplementedFunc::mu;
constinit std::mutex quorvil::Timer::alarmMtx;
std::set<std::string> ovx::ImplementedFunc::allImplemented;

namespace {

const ThreadKey keyHolder;

} // namespace

tss::ThreadSafeStream safeCout(std::cout);
tss::ThreadSafeStream safeCerr(std::cerr);
// Never deleted: who makes drives may do so to the very end.
ovxfs::OVXFSFactory* ovxfs::OVXFSFactory::I = new ovxfs::OVXFSFactoryVm;

ovx::ImplementedFunc::~ImplementedFunc() = default;

std::recursive_mutex& quorvil::intern::consoleLock()
{
    return console;
}

bool quorvil::intern::threadKeyCreated()
{
    return keyCreated;
}

pthread_key_t quorvil::intern::threadKey()
{
    return ::threadKey;
}

const ovxfsvm::DrivePathManager& quorvil::intern::drivePathManager()
{
    return drivePaths;
}
