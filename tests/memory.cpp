// Heaps and their allocator, queue and pool, capacity control.

#include "Quorvil/QuorvilBlockingQueue.h"
#include "Quorvil/QuorvilCapacityControl.h"
#include "Quorvil/QuorvilFastAllocator.h"
#include "Quorvil/QuorvilNonlockingPool.h"
#include "tests/support/assertion.h"
#include "tests/support/interpose.h"
#include "tests/support/pageFaults.h"
#include "tests/support/systemCalls.h"

#include <gmock/gmock.h>

#include <climits>
#include <csignal>
#include <map>
#include <semaphore>
#include <sys/mman.h>
#include <sys/syscall.h>

using namespace quorvil;

using support::expectNothingOfTheSystem;
using testing::ThrowsMessage;

SUPPORT_INTERPOSE(int, mlockall, (int flags), (flags), noexcept)
SUPPORT_INTERPOSE(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex), noexcept)
static pthread_mutex_t* waitersMutex = nullptr;
SUPPORT_INTERPOSE(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex),
                  (condition, waitersMutex = mutex), )
SUPPORT_INTERPOSE(int, pthread_cond_signal, (pthread_cond_t * condition), (condition), noexcept)

namespace {

// ---- heaps

using HeapString = std::basic_string<char, std::char_traits<char>, FastAllocator<char>>;

std::string heapFailure(const std::string& function, const std::string& expression)
{
    return support::assertion("Quorvil/QuorvilFastAllocator", function, expression);
}

const std::string alloc = "virtual void* quorvil::BaseHeap::alloc(size_t)";
const std::string exhausted = heapFailure(alloc, "nextMem + ceilSize <= memEnd");

TEST(Heaps, GiveOutAndTakeBackInAnyOrder)
{
    // 't'ake or 'g'ive back, the block's place and size, and where the next block stands afterwards.
    using Step = std::tuple<char, ptrdiff_t, size_t, ptrdiff_t>;
    const std::vector<Step> walks[] = {
        {{'t', 0, 8, 8}, {'t', 8, 3, 16}, {'g', 8, 3, 16}, {'g', 0, 8, 0}},
        {{'t', 0, 8, 8}, {'t', 8, 3, 16}, {'g', 0, 8, 16}, {'g', 8, 3, 0}},
        // The last block goes back at once if its size is a multiple of 8, and then the one before does not follow.
        {{'t', 0, 3, 8}, {'t', 8, 8, 16}, {'t', 16, 16, 32}, {'g', 16, 16, 16}, {'g', 0, 3, 16}, {'g', 8, 8, 0}},
        // The sum counts what was asked for, so that the last byte empties the heap.
        {{'t', 0, 1, 8}, {'t', 8, 0, 8}, {'t', 8, 15, 24}, {'g', 0, 1, 24}, {'g', 8, 15, 0}, {'t', 0, 64, 64}},
    };
    for (const auto& steps : walks) {
        SimpleHeap simple(64);
        SubHeap sub(simple, 64);
        char* const start = static_cast<char*>(sub.alloc(0));
        for (const auto& [operation, at, size, nextAt] : steps) {
            if (operation == 't')
                EXPECT_EQ(start + at, sub.alloc(size));
            else
                sub.dealloc(start + at, size);
            EXPECT_EQ(start + nextAt, sub.alloc(0)) << operation << size << " at " << at;
            EXPECT_EQ(nextAt == 0, sub.allFree());
        }
    }
}

TEST(Heaps, EndTheProcessWhereTheyAreExhaustedOrMisused)
{
    const size_t rows[][3] = {{64, 56, 9}, {64, 64, 1}, {64, 8, SIZE_MAX}, {64, 8, SIZE_MAX - 7}, {13, 0, 9}};
    for (const auto& [room, taken, size] : rows) {
        SimpleHeap heap(room);
        heap.alloc(taken);
        EXPECT_DEATH(heap.alloc(size), exhausted) << room << ' ' << taken << ' ' << size;
        heap.alloc(room / 8 * 8 - taken);
    }
    SimpleHeap& parent = SimpleHeap::singleton;
    {
        SubHeap sub(parent, 100);
        parent.dealloc(parent.alloc(0x100000 - 104), 0x100000 - 104);
        EXPECT_DEATH(parent.alloc(0x100000 - 103), exhausted);
        sub.alloc(96);
        EXPECT_DEATH(sub.alloc(1), exhausted);
    }
    EXPECT_TRUE(parent.allFree()) << "with a block of the sub-heap still out";
    alignas(8) char range[64];
    EXPECT_DEATH(BaseHeap(range + 4, range + 64).alloc(8), heapFailure(alloc, "((ptrdiff_t) nextMem & 7) == 0"));
    BaseHeap heap;
    heap.init(range, range + 64);
    EXPECT_DEATH(heap.dealloc(heap.alloc(11), 12),
                 heapFailure("virtual void quorvil::BaseHeap::dealloc(void*, size_t)", "sumAllocated >= size"));
    SimpleHeap damaged(8);
    EXPECT_DEATH((support::damage(damaged, 1, nullptr), damaged.alloc(8)),
                 heapFailure("virtual void* quorvil::SimpleHeap::alloc(size_t)", "base.mem == (char*) this->allocd"));
    FastAllocator<char> homeless(nullptr);
    EXPECT_DEATH(homeless.allocate(1), heapFailure("", "heap"));
    EXPECT_DEATH(FastAllocator<int>{homeless}, heapFailure("", "b.getHeap()"));
}

TEST(SimpleHeap, LocksItsBlockOrEndsTheProcess)
{
    constexpr size_t size = 4 << 20;
    SimpleHeap heap(size);
    char* const block = static_cast<char*>(heap.alloc(size));
    const long faults = support::pageFaults();
    for (size_t i = 0; i < size; i += 512)
        block[i] = 1;
    EXPECT_EQ(faults, support::pageFaults());
    EXPECT_EXIT((mlockallFault.fail(-1, ENOMEM), SimpleHeap(8)), testing::KilledBySignal(SIGABRT),
                "mlockall failed: Cannot allocate memory\n");
    for (const size_t none : {SIZE_MAX, static_cast<size_t>(PTRDIFF_MAX) + 1})
        EXPECT_THROW(SimpleHeap{none}, std::bad_array_new_length) << none;
}

TEST(FastAllocator, HoldsTheStandardContainersAndTakesNothingOfTheSystem)
{
    const std::shared_ptr<IHeap> heap = std::make_shared<SimpleHeap>(65536);
    SubHeap sub(SimpleHeap::singleton, 4096);
    const FastAllocator<char> second(std::shared_ptr<SubHeap>(&sub, EmptyDeleter<SubHeap>()));
    expectNothingOfTheSystem([&heap, &second] {
        std::map<int, HeapString, std::less<int>, FastAllocator<std::pair<const int, HeapString>>> texts(heap);
        texts.emplace(1, HeapString("a text too long for the small buffer of a string", heap));
        // Between heaps the elements move, and each container keeps its own.
        std::vector<int, FastAllocator<int>> numbers(100, 7, heap), others(second);
        others = std::move(numbers);
        EXPECT_EQ(100U, others.size());
        EXPECT_TRUE(others.get_allocator() == second && !(numbers.get_allocator() == second));
    });
    EXPECT_TRUE(heap->allFree());
    EXPECT_EQ(1, heap.use_count()) << "a copy of the allocator is left";
    FastAllocator<double> doubles(heap);
    EXPECT_EQ(heap, doubles.getHeap());
    EXPECT_THROW(doubles.allocate(SIZE_MAX / 8 + 1), std::bad_array_new_length);
    EXPECT_DEATH(doubles.allocate(SIZE_MAX / 8), exhausted);
}

// ---- queue and pool

using Value = std::shared_ptr<char>;
using Queue = BlockingQueue<Value, std::allocator<Value>>;
using Call = std::function<void()>;

const testing::Matcher<Call> throwsClosed = ThrowsMessage<BlockingQueueClosedException>("BlockingQueue closed");
const testing::Matcher<Call> throwsCanceled = ThrowsMessage<BlockingQueueCanceledException>("BlockingQueue canceled");

TEST(BlockingQueue, HoldsItsCapacityInOrderUntilItIsEmptyAndClosedOrCancelled)
{
    char letters[] = "abcd";
    for (size_t capacity = 0; capacity < 4; ++capacity) {
        std::string destroyed;
        const auto fill = [&](Queue& queue) {
            for (size_t i = 0; i <= capacity; ++i) {
                Value value(letters + i, [&destroyed](const char* letter) { destroyed += *letter; });
                EXPECT_EQ(queue.push(std::move(value)), i < capacity);
                EXPECT_EQ(value == nullptr, i < capacity) << "what is refused is still the caller's";
            }
            destroyed.clear();
        };
        {
            Queue queue(capacity, {});
            // Each round begins at another slot, and the last one behind the close.
            for (int round = 0; round < 5; ++round) {
                if (round == 4)
                    queue.close();
                fill(queue);
                for (size_t i = 0; i < capacity; ++i)
                    EXPECT_EQ(letters[i], *(i % 2 ? queue.pop() : queue.tryPop()));
                EXPECT_FALSE(queue.tryPop());
            }
            EXPECT_THAT([&queue] { queue.pop(); }, throwsClosed);
            fill(queue);
            queue.cancel();
            EXPECT_THAT([&queue] { queue.pop(); }, throwsCanceled);
            EXPECT_FALSE(queue.tryPop());
        }
        EXPECT_EQ(destroyed, std::string(letters, capacity)) << "the oldest first";
    }
    EXPECT_THROW(Queue(SIZE_MAX, {}), std::bad_array_new_length);
    EXPECT_STREQ("FencedQueueOverflowException", FencedQueueOverflowException().what());
    Value elsewhere;
    EXPECT_DEATH(Queue(3, {}).next(&elsewhere),
                 support::assertion("Quorvil/QuorvilBlockingQueue", "", "p >= array && p <= array + capacity"));
}

/// Returns once `count` more threads wait than `before`. A thread that counts itself holds the queue's mutex until it
/// sleeps, so that whoever locks the mutex next finds it asleep.
void awaitWaits(int before, int count)
{
    while (pthread_cond_waitFault.calls < before + count)
        std::this_thread::yield();
}

TEST(BlockingQueue, WakesEveryConsumerByItsEnd)
{
    for (const bool cancel : {false, true}) {
        Queue queue(2, {});
        const int waits = pthread_cond_waitFault.calls;
        std::vector<std::thread> consumers;
        for (int i = 0; i < 3; ++i)
            consumers.emplace_back([&] { EXPECT_THAT([&] { queue.pop(); }, cancel ? throwsCanceled : throwsClosed); });
        awaitWaits(waits, 3);
        cancel ? queue.cancel() : queue.close();
        for (std::thread& consumer : consumers)
            consumer.join();
    }
}

TEST(NonlockingPool, LendsTheObjectGivenBackLastAndIsUnchangedWhereItRefuses)
{
    int objects[2];
    for (const int size : {0, 1, 2}) {
        NonlockingPool<int> pool(objects, size);
        for (int round = 0; round < 2; ++round) {
            for (int i = 0; i < size; ++i)
                EXPECT_EQ(objects + i, i % 2 ? pool.get() : pool.tryGet());
            EXPECT_THAT([&] { pool.get(); }, ThrowsMessage<util::GeneralException>("Pool underflow"));
            EXPECT_EQ(nullptr, pool.tryGet());
            for (int i = size; i-- > 0;)
                pool.put(objects + i);
            EXPECT_THAT([&] { pool.put(objects); }, ThrowsMessage<util::GeneralException>("Pool overflow"));
        }
    }
    EXPECT_THROW(NonlockingPool<int>(nullptr, -1), std::bad_array_new_length);
    NonlockingPool<int> pool(objects, 2);
    support::damage(pool, 4, reinterpret_cast<void*>(PTRDIFF_MAX - 7));
    EXPECT_DEATH(pool.tryGet(), support::assertion("Quorvil/QuorvilNonlockingPool", "", "newNext - available <= size"));
}

TEST(QueueAndPool, TakeNothingOfTheSystemButTheWakeUpOfTheFirstValueAndRefuseWithoutTheirMutex)
{
    int objects[2];
    NonlockingPool<int> pool(objects, 2);
    BlockingQueue<int*, std::allocator<int*>> queue(2, {});
    expectNothingOfTheSystem([&] {
        queue.push(pool.get());
        queue.push(pool.tryGet());
        pool.put(queue.pop());
        pool.put(queue.tryPop());
    });
    // The woken consumer does not get on before both values are there.
    std::binary_semaphore pushed(0);
    const support::HookScope hook(pthread_cond_waitFault, {}, [&pushed] {
        pthread_mutex_unlock(waitersMutex);
        pushed.acquire();
        pthread_mutex_lock(waitersMutex);
    });
    const int waits = pthread_cond_waitFault.calls;
    std::thread consumer([&queue] { queue.pop(); });
    awaitWaits(waits, 1);
    queue.tryPop(); // locks the mutex, and so returns when the consumer sleeps
    const int wakeUps = pthread_cond_signalFault.calls;
    expectNothingOfTheSystem([&] { queue.push(pool.get()), queue.push(pool.get()); }, {SYS_futex});
    EXPECT_EQ(wakeUps + 1, pthread_cond_signalFault.calls);
    pushed.release();
    consumer.join();
    {
        const support::FaultScope fault(pthread_mutex_lockFault, EAGAIN);
        EXPECT_THROW(queue.push(objects), std::system_error);
        EXPECT_THROW(pool.put(objects), std::system_error);
    }
    expectNothingOfTheSystem([&queue] { queue.close(), queue.cancel(); });
}

TEST(QueueAndPool, HandOverInOrderBetweenThreadsAndLoseNothing)
{
    struct Numbered
    {
        size_t producer;
        int number;
    };
    Numbered values[8];
    NonlockingPool<Numbered> pool(values, 8);
    BlockingQueue<Numbered*, std::allocator<Numbered*>> queue(4, {});
    // Four operations a value, a million of them where nothing slows them down.
    const int each = (support::sanitized || support::emulated ? 12'500 : 125'000) * support::stressFactor();
    const auto produce = [&](size_t producer) {
        for (int number = 0; number < each; std::this_thread::yield())
            if (Numbered* value = pool.tryGet()) {
                *value = {producer, number++};
                while (!queue.push(std::move(value)))
                    std::this_thread::yield();
            }
    };
    const std::jthread producers[] = {std::jthread(produce, 0), std::jthread(produce, 1)};
    int expected[2] = {};
    int others = 0;
    while (expected[0] + expected[1] < 2 * each) {
        Numbered* const value = queue.pop();
        others += value->number != expected[value->producer]++;
        pool.put(value);
    }
    EXPECT_EQ(0, others);
    EXPECT_EQ(nullptr, queue.tryPop());
}

// ---- capacity control

TEST(CapacityControl, BooksBetweenNothingAndItsCapacity)
{
    const auto control = CapacityControl::create("buffers", 10, 11);
    const auto increase = [&control](int amount) { return [&, amount] { control->increaseSize(amount); }; };
    const auto decrease = [&control](int amount) { return [&, amount] { control->decreaseSize(amount); }; };
    const auto refuses = [](const std::string& message) { return ThrowsMessage<util::GeneralException>(message); };
    EXPECT_THAT(increase(0), refuses("Capacity exceeded in CapacityControl buffers: 11 + 0 > 10"));
    expectNothingOfTheSystem([&] { decrease(11)(), increase(9)(), increase(0)(); });
    EXPECT_THAT(increase(INT_MAX), refuses("Capacity exceeded in CapacityControl buffers: 9 + 2147483647 > 10"));
    EXPECT_THAT(decrease(10),
                refuses("Illegal argument for CapacityControl::decreaseSize: size = 9 < 10 = sizeDecrement"));
    increase(1)();
    const auto failure = [](const std::string& function, const std::string& expression) {
        return support::assertion("Quorvil/QuorvilCapacityControl",
                                  "virtual void quorvil::CapacityControlImpl::" + function, expression);
    };
    EXPECT_DEATH(control->increaseSize(-1), failure("increaseSize(int)", "sizeIncrement >= 0"));
    EXPECT_DEATH(control->decreaseSize(-1), failure("decreaseSize(int)", "sizeDecrement >= 0"));
}

} // namespace
