#include "Quorvil/QuorvilBlockingQueue.h"
#include "Quorvil/QuorvilFastAllocator.h"
#include "Quorvil/QuorvilNonlockingPool.h"
#include "tests/support/allocationCount.h"
#include "tests/support/assertion.h"
#include "tests/support/environment.h"
#include "tests/support/interpose.h"
#include "tests/support/systemCalls.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/syscall.h>
#include <system_error>
#include <thread>
#include <vector>

using namespace quorvil;

SUPPORT_INTERPOSE(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex), (condition, mutex), )
SUPPORT_INTERPOSE(int, pthread_cond_signal, (pthread_cond_t * condition), (condition), noexcept)
SUPPORT_INTERPOSE(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex), noexcept)

namespace {

/// Notes the values that it destroys, in their order.
struct Noting
{
    std::vector<int>* destroyed = nullptr;

    void operator()(int* value) const
    {
        if (destroyed)
            destroyed->push_back(*value);
        delete value;
    }
};

using Value = std::unique_ptr<int, Noting>;
using Queue = BlockingQueue<Value, std::allocator<Value>>;
using Numbers = BlockingQueue<int, std::allocator<int>>;

/// Waits until `count` more waits on a condition have begun than `before`. A thread that counts itself holds the mutex
/// until the wait lets go of it, so that whoever locks the mutex next finds the thread asleep.
void awaitWaits(int before, int count)
{
    while (pthread_cond_waitFault.calls < before + count)
        std::this_thread::yield();
}

class Pools : public testing::Test
{
protected:
    Pools()
    {
        util::GeneralException::defaultSilent = true;
    }

    ~Pools() override
    {
        util::GeneralException::defaultSilent = false;
    }
};

// The queue

/// What a queue ought to do.
struct QueueModel
{
    size_t capacity;
    std::deque<int> values{};
    bool closed = false;
    bool canceled = false;
};

/// Pops from both and compares, unless the queue would wait.
void popFromBoth(Queue& queue, QueueModel& model)
{
    if (!model.canceled && !model.values.empty()) {
        // Both ways have to take the same.
        const Value value = model.values.front() % 2 == 0 ? queue.pop() : queue.tryPop();
        ASSERT_TRUE(value);
        EXPECT_EQ(model.values.front(), *value);
        model.values.pop_front();
        return;
    }
    EXPECT_FALSE(queue.tryPop());
    if (model.canceled) {
        EXPECT_THROW(queue.pop(), BlockingQueueCanceledException);
    } else if (model.closed) {
        EXPECT_THROW(queue.pop(), BlockingQueueClosedException);
    }
}

void pushToBoth(Queue& queue, QueueModel& model, int number, std::vector<int>& destroyed)
{
    Value value(new int(number), Noting{&destroyed});
    const bool room = model.values.size() < model.capacity;
    EXPECT_EQ(room, queue.push(std::move(value)));
    EXPECT_EQ(room, value == nullptr);
    if (room)
        model.values.push_back(number);
}

TEST(BlockingQueue, DoesWhatItsStatesSayInEveryOrderOfOperations)
{
    constexpr int operations = 7;
    for (size_t capacity = 0; capacity < 4; ++capacity)
        for (unsigned order = 0; order < 1U << (2 * operations); ++order) {
            std::vector<int> destroyed;
            QueueModel model{capacity};
            {
                Queue queue(capacity, {});
                for (int i = 0; i < operations; ++i)
                    switch (order >> (2 * i) & 3) {
                    case 0:
                        pushToBoth(queue, model, i, destroyed);
                        break;
                    case 1:
                        popFromBoth(queue, model);
                        break;
                    case 2:
                        queue.close();
                        model.closed = true;
                        break;
                    default:
                        queue.cancel();
                        model.canceled = true;
                    }
                destroyed.clear();
            }
            ASSERT_EQ(std::vector<int>(model.values.begin(), model.values.end()), destroyed)
                << capacity << ' ' << order;
        }
}

TEST(BlockingQueue, SaysInItsExceptionsWhatHappened)
{
    EXPECT_STREQ("BlockingQueue closed", BlockingQueueClosedException().what());
    EXPECT_STREQ("BlockingQueue canceled", BlockingQueueCanceledException().what());
    EXPECT_STREQ("FencedQueueOverflowException", FencedQueueOverflowException().what());
    EXPECT_THROW(throw BlockingQueueClosedException(), std::underflow_error);
    EXPECT_THROW(throw BlockingQueueCanceledException(), std::underflow_error);
    EXPECT_THROW(throw FencedQueueOverflowException(), std::runtime_error);
}

TEST(BlockingQueue, WalksItsRing)
{
    SimpleHeap heap(64);
    const FastAllocator<int> allocator(std::shared_ptr<IHeap>(&heap, EmptyDeleter<IHeap>()));
    int* const array = static_cast<int*>(heap.alloc(0));
    const BlockingQueue<int, FastAllocator<int>> queue(3, allocator);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(array + (i + 1) % 4, queue.next(array + i));
#ifdef __clang__
    const std::string function;
#else
    const std::string function = "T* quorvil::BlockingQueue<T, Alloc>::next(T*) const [with T = int; Alloc = "
                                 "quorvil::FastAllocator<int>]";
#endif
    for (int* const outside : {array - 1, array + 4})
        EXPECT_DEATH(queue.next(outside), support::assertion("Quorvil/QuorvilBlockingQueue", function,
                                                             "p >= array && p <= array + capacity"));
}

/// Counts itself, and refuses to be made when `budget` has run out.
struct Counted
{
    static inline int alive = 0;
    static inline int budget = 0;

    Counted()
    {
        if (budget-- == 0)
            throw std::length_error("no more");
        ++alive;
    }

    Counted(Counted&&) noexcept
    {
        ++alive;
    }

    Counted& operator=(Counted&&) = default;

    ~Counted()
    {
        --alive;
    }
};

TEST(BlockingQueue, MakesAndDestroysEverySlotOrNone)
{
    SimpleHeap heap(64);
    const FastAllocator<Counted> allocator(std::shared_ptr<IHeap>(&heap, EmptyDeleter<IHeap>()));
    using Slots = BlockingQueue<Counted, FastAllocator<Counted>>;
    for (int budget = 0; budget < 4; ++budget) {
        Counted::budget = budget;
        EXPECT_THROW(Slots(3, allocator), std::length_error);
        EXPECT_EQ(0, Counted::alive);
        EXPECT_TRUE(heap.allFree());
    }
    Counted::budget = 5;
    {
        Slots queue(3, allocator);
        EXPECT_EQ(4, Counted::alive);
        queue.push(Counted());
        EXPECT_EQ(4, Counted::alive);
    }
    EXPECT_EQ(0, Counted::alive);
    EXPECT_TRUE(heap.allFree());
    EXPECT_THROW(Slots(SIZE_MAX, allocator), std::bad_array_new_length);
}

TEST(BlockingQueue, WakesItsSleepingConsumerByTheFirstPush)
{
    Numbers queue(2, {});
    const int waits = pthread_cond_waitFault.calls;
    std::vector<int> got;
    std::thread consumer([&] {
        got.push_back(queue.pop());
        got.push_back(queue.pop());
        EXPECT_THROW(queue.pop(), BlockingQueueClosedException);
    });
    awaitWaits(waits, 1);
    {
        // The wake-up is lost, so that the consumer still sleeps at the second push.
        const support::FaultScope fault(pthread_cond_signalFault, 0);
        queue.push(1);
        EXPECT_EQ(1, pthread_cond_signalFault.calls);
        queue.push(2);
        EXPECT_EQ(1, pthread_cond_signalFault.calls);
    }
    queue.close();
    consumer.join();
    EXPECT_EQ((std::vector<int>{1, 2}), got);
}

TEST(BlockingQueue, WakesNobodyWhenNobodyWaits)
{
    Numbers queue(2, {});
    const int waits = pthread_cond_waitFault.calls;
    const int before = pthread_cond_signalFault.calls;
    queue.push(1);
    queue.pop();
    EXPECT_EQ(0, pthread_cond_signalFault.calls - before);
    std::thread consumer([&] { queue.pop(); });
    awaitWaits(waits, 1);
    queue.push(2);
    consumer.join();
    EXPECT_EQ(1, pthread_cond_signalFault.calls - before);
    queue.close();
    EXPECT_THROW(queue.pop(), BlockingQueueClosedException);
    queue.push(3);
    EXPECT_EQ(1, pthread_cond_signalFault.calls - before);
}

TEST(BlockingQueue, WakesEveryConsumerWhenItIsClosedOrCancelled)
{
    for (const bool cancel : {false, true}) {
        const int waits = pthread_cond_waitFault.calls;
        Numbers queue(2, {});
        std::atomic<int> closed{0};
        std::atomic<int> canceled{0};
        std::vector<std::thread> consumers;
        for (int i = 0; i < 3; ++i)
            consumers.emplace_back([&] {
                try {
                    queue.pop();
                } catch (const BlockingQueueClosedException&) {
                    ++closed;
                } catch (const BlockingQueueCanceledException&) {
                    ++canceled;
                }
            });
        awaitWaits(waits, 3);
        cancel ? queue.cancel() : queue.close();
        for (std::thread& consumer : consumers)
            consumer.join();
        EXPECT_EQ(cancel ? 0 : 3, closed);
        EXPECT_EQ(cancel ? 3 : 0, canceled);
    }
}

TEST(BlockingQueue, IsUnchangedWhenItsMutexCannotBeLocked)
{
    Queue queue(2, {});
    queue.push(Value(new int(1)));
    Value value(new int(2));
    const std::function<void()> operations[] = {[&] { queue.push(std::move(value)); }, [&] { queue.pop(); },
                                                [&] { queue.tryPop(); }, [&] { queue.close(); },
                                                [&] { queue.cancel(); }};
    for (const auto& operation : operations) {
        const support::FaultScope fault(pthread_mutex_lockFault, EINVAL, 0, 1, 1);
        EXPECT_THROW(operation(), std::system_error);
    }
    EXPECT_TRUE(queue.push(std::move(value)));
    EXPECT_EQ(1, *queue.pop());
    EXPECT_EQ(2, *queue.pop());
}

// The pool

TEST_F(Pools, LendTheObjectGivenBackLastInEveryOrderOfOperations)
{
    constexpr int operations = 9;
    int objects[3];
    for (int size = 0; size <= 3; ++size)
        for (unsigned order = 0; order < 1U << operations; ++order) {
            NonlockingPool<int> pool(objects, size);
            std::vector<int*> available;
            for (int i = size; i-- > 0;)
                available.push_back(objects + i);
            for (int i = 0; i < operations; ++i) {
                const bool get = order >> i & 1;
                if (get && !available.empty()) {
                    ASSERT_EQ(available.back(), i % 2 ? pool.get() : pool.tryGet());
                    available.pop_back();
                } else if (get) {
                    EXPECT_THROW(pool.get(), util::GeneralException);
                    EXPECT_EQ(nullptr, pool.tryGet());
                } else if (available.size() < static_cast<size_t>(size)) {
                    // The pool does not look at what it is given.
                    available.push_back(objects + i % 3);
                    pool.put(objects + i % 3);
                } else {
                    EXPECT_THROW(pool.put(objects), util::GeneralException);
                }
            }
        }
}

TEST_F(Pools, AnnounceThatTheyRefuse)
{
    util::GeneralException::defaultSilent = false;
    NonlockingPool<int> pool(nullptr, 0);
    const struct
    {
        std::function<void()> operation;
        std::string message;
    } rows[] = {{[&] { pool.get(); }, "Pool underflow"}, {[&] { pool.put(nullptr); }, "Pool overflow"}};
    for (const auto& row : rows) {
        testing::internal::CaptureStdout();
        std::string message;
        try {
            row.operation();
        } catch (const util::GeneralException& exception) {
            message = exception.what();
        }
        EXPECT_EQ(row.message, message);
        EXPECT_EQ("[WARN Quorvil/GeneralException:65]    Constructing GeneralException with msg " + row.message + "\n",
                  testing::internal::GetCapturedStdout());
    }
}

TEST_F(Pools, AreUnchangedWhenTheirMutexCannotBeLocked)
{
    int objects[2];
    NonlockingPool<int> pool(objects, 2);
    pool.get();
    const std::function<void()> operations[] = {[&] { pool.get(); }, [&] { pool.tryGet(); },
                                                [&] { pool.put(objects); }};
    for (const auto& operation : operations) {
        const support::FaultScope fault(pthread_mutex_lockFault, EINVAL, 0, 1, 1);
        EXPECT_THROW(operation(), std::system_error);
    }
    EXPECT_EQ(objects + 1, pool.get());
    EXPECT_EQ(nullptr, pool.tryGet());
}

TEST_F(Pools, HaveNoNegativeSize)
{
    for (const int size : {-1, INT_MIN})
        EXPECT_THROW(NonlockingPool<int>(nullptr, size), std::bad_array_new_length);
}

TEST_F(Pools, EndTheProcessWhenTheyAreDamaged)
{
#ifdef __clang__
    const std::string get, tryGet;
#else
    const std::string get = "T* quorvil::NonlockingPool<T>::get() [with T = int]";
    const std::string tryGet = "T* quorvil::NonlockingPool<T>::tryGet() [with T = int]";
#endif
    int objects[2];
    NonlockingPool<int> pool(objects, 2);
    // The place of the next pointer is the fifth word of the pool, and three pointers on it is beyond the end.
    char* const next = reinterpret_cast<char*>(&pool) + 4 * sizeof(void*);
    uintptr_t word;
    std::memcpy(&word, next, sizeof word);
    word += 3 * sizeof(void*);
    std::memcpy(next, &word, sizeof word);
    EXPECT_DEATH(pool.get(), support::assertion("Quorvil/QuorvilNonlockingPool", get, "newNext - available <= size"));
    EXPECT_DEATH(pool.tryGet(),
                 support::assertion("Quorvil/QuorvilNonlockingPool", tryGet, "newNext - available <= size"));
}

// Queue and pool together

/// A number that is under way, in an object of a pool.
struct Message
{
    int producer = 0;
    int number = 0;
};

struct GiveBack
{
    NonlockingPool<Message>* pool = nullptr;

    void operator()(Message* message) const
    {
        pool->put(message);
    }
};

using Handle = std::unique_ptr<Message, GiveBack>;
using Messages = BlockingQueue<Handle, FastAllocator<Handle>>;

constexpr int producers = 3;
constexpr int messagesOfAProducer = support::emulated || support::sanitized ? 10000 : 30000;

/// Objects, pool and queue, with fewer objects than would fill the queue, or more.
class Road
{
public:
    explicit Road(size_t objectCount)
        : objects(objectCount)
        , pool(objects.data(), static_cast<int>(objectCount))
        , queue(8, FastAllocator<Handle>(std::make_shared<SimpleHeap>(16 * sizeof(Handle))))
    {
    }

    /// Sends all messages of one producer, and counts how often the pool was empty or the queue full.
    void produce(int producer)
    {
        for (int number = 0; number < messagesOfAProducer; ++number) {
            Handle handle;
            while (!(handle = Handle(pool.tryGet(), GiveBack{&pool}))) {
                ++refused;
                std::this_thread::yield();
            }
            *handle = Message{producer, number};
            while (!queue.push(std::move(handle))) {
                ++refused;
                std::this_thread::yield();
            }
        }
    }

    std::vector<Message> objects;
    NonlockingPool<Message> pool;
    Messages queue;
    std::atomic<long> refused{0};
};

/// Sends the messages of all producers to `consumerCount` consumers and counts what arrives; the consumers end when the
/// queue is closed. With one consumer each producer's messages arrive in their order.
void sendAll(size_t objectCount, int consumerCount)
{
    Road road(objectCount);
    std::array<std::atomic<int64_t>, producers> sums{};
    std::atomic<int> outOfOrder{0};
    std::vector<std::thread> consumers;
    for (int i = 0; i < consumerCount; ++i)
        consumers.emplace_back([&] {
            std::array<int, producers> last{-1, -1, -1};
            try {
                while (true) {
                    const Handle handle = road.queue.pop();
                    const auto producer = static_cast<size_t>(handle->producer);
                    outOfOrder += handle->number <= last[producer];
                    last[producer] = handle->number;
                    sums[producer] += handle->number + 1;
                }
            } catch (const BlockingQueueClosedException&) {
            }
        });
    std::vector<std::thread> threads;
    for (int producer = 0; producer < producers; ++producer)
        threads.emplace_back([&, producer] { road.produce(producer); });
    for (std::thread& thread : threads)
        thread.join();
    road.queue.close();
    for (std::thread& consumer : consumers)
        consumer.join();

    for (const std::atomic<int64_t>& sum : sums)
        EXPECT_EQ(int64_t{messagesOfAProducer} * (messagesOfAProducer + 1) / 2, sum);
    EXPECT_EQ(0, outOfOrder);
    EXPECT_GT(road.refused, 0) << "neither the pool nor the queue was ever at its limit";
    std::set<Message*> back;
    while (Message* const object = road.pool.tryGet())
        back.insert(object);
    EXPECT_EQ(objectCount, back.size());
}

TEST(QueueAndPool, LoseNothingWhenThePoolRunsOut)
{
    sendAll(4, 1);
}

TEST(QueueAndPool, LoseNothingWhenTheQueueIsFull)
{
    sendAll(32, 1);
}

TEST(QueueAndPool, ServeSeveralConsumersThatLoop)
{
    sendAll(32, 3);
}

/// What a real-time thread does with a pool and a queue.
void useRoad(Road& road)
{
    for (int i = 0; i < 100; ++i) {
        Handle handle(road.pool.get(), GiveBack{&road.pool});
        road.queue.push(std::move(handle));
        Handle other(road.pool.tryGet(), GiveBack{&road.pool});
        road.queue.push(std::move(other));
        road.queue.pop();
        road.queue.tryPop();
        road.queue.tryPop();
    }
}

TEST(QueueAndPool, TakeNoMemoryFromTheSystem)
{
    Road road(2);
    const support::AllocationCount count;
    useRoad(road);
    road.queue.close();
    road.queue.cancel();
    EXPECT_EQ(0U, count.allocations());
    EXPECT_EQ(0U, count.releases());
}

TEST(QueueAndPool, MakeNoSystemCallButTheOneThatWakes)
{
    if (const char* const reason = support::systemCallsHidden())
        GTEST_SKIP() << reason;
    Road road(2);
    EXPECT_EQ(std::vector<int>(), support::systemCallsOf([&] { useRoad(road); }));

    const int waits = pthread_cond_waitFault.calls;
    std::thread consumer([&] { road.queue.pop(); });
    awaitWaits(waits, 1);
    Handle handle(road.pool.get(), GiveBack{&road.pool});
    EXPECT_EQ(std::vector<int>{SYS_futex}, support::systemCallsOf([&] { road.queue.push(std::move(handle)); }));
    consumer.join();
}

} // namespace
