// Semaphore: a wait and a post in one thread beside the POSIX calls that they are made of; hand-over between two
// threads beside the bare semaphore, in processor time.

#include "Quorvil/CountingSemaphore.h"
#include "bench/support.h"

#include <pthread.h>
#include <semaphore.h>
#include <thread>

namespace {

constexpr int roundTripsOfARun = 500;

/// The POSIX semaphore alone.
class BareSemaphore
{
public:
    explicit BareSemaphore(int value)
    {
        sem_init(&sem, 0, static_cast<unsigned>(value));
    }
    ~BareSemaphore()
    {
        sem_destroy(&sem);
    }
    BareSemaphore(const BareSemaphore&) = delete;
    BareSemaphore& operator=(const BareSemaphore&) = delete;

    void wait()
    {
        while (sem_wait(&sem) != 0) {
        }
    }
    void post()
    {
        sem_post(&sem);
    }

private:
    sem_t sem;
};

/// The POSIX semaphore, and the mutex around it that a semaphore with a count of waiters cannot do without.
class SemaphoreAndMutex
{
public:
    explicit SemaphoreAndMutex(int value)
        : semaphore(value)
    {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~SemaphoreAndMutex()
    {
        pthread_mutex_destroy(&mutex);
    }
    SemaphoreAndMutex(const SemaphoreAndMutex&) = delete;
    SemaphoreAndMutex& operator=(const SemaphoreAndMutex&) = delete;

    void wait()
    {
        lockAndUnlock();
        semaphore.wait();
        lockAndUnlock();
    }
    void post()
    {
        lockAndUnlock();
        semaphore.post();
    }

private:
    void lockAndUnlock()
    {
        pthread_mutex_lock(&mutex);
        benchmark::ClobberMemory();
        pthread_mutex_unlock(&mutex);
    }

    BareSemaphore semaphore;
    pthread_mutex_t mutex;
};

template <typename Semaphore>
void uncontended(benchmark::State& state)
{
    Semaphore semaphore(0);
    for (auto _ : state) {
        semaphore.post();
        semaphore.wait();
    }
}

/// The turn goes to the other thread and back, as often as a run has round trips.
template <typename Semaphore>
void handOver(benchmark::State& state)
{
    Semaphore there(0);
    Semaphore back(0);
    bool ended = false;
    std::thread other([&] {
        for (there.wait(); !ended; there.wait())
            back.post();
    });
    for (auto _ : state)
        for (int i = 0; i < roundTripsOfARun; ++i) {
            there.post();
            back.wait();
        }
    ended = true;
    there.post();
    other.join();
    state.SetItemsProcessed(state.iterations() * roundTripsOfARun);
}

BENCHMARK(uncontended<util::CountingSemaphore>)->Name("semaphore/uncontended/CountingSemaphore");
BENCHMARK(uncontended<SemaphoreAndMutex>)->Name("semaphore/uncontended/sem_tAndMutex");
BENCHMARK(handOver<util::CountingSemaphore>)->Name("semaphore/handOver/CountingSemaphore")->MeasureProcessCPUTime();
BENCHMARK(handOver<BareSemaphore>)->Name("semaphore/handOver/sem_t")->MeasureProcessCPUTime();

} // namespace

// Both threads stay on one core, as on the target.
int main(int argc, char** argv)
{
    return bench::run(argc, argv, true);
}
