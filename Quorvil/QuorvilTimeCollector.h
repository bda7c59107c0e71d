// QuorvilTimeCollector.h: timing records that a real-time thread fills and a background thread prints
// Diagnostics, on Threads and timers, Memory and queues

#ifndef QUORVIL_QUORVILTIMECOLLECTOR_H
#define QUORVIL_QUORVILTIMECOLLECTOR_H

#include "Quorvil/QuorvilBlockingQueue.h"
#include "Quorvil/QuorvilExport.h"
#include "Quorvil/QuorvilFastAllocator.h"
#include "Quorvil/QuorvilNonlockingPool.h"
#include "Quorvil/QuorvilPthread.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <locale>
#include <memory>
#include <mutex>
#include <new>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

namespace quorvil {

class StringDeleter;
class TimeCollectorPool;

/// Number formatting with groups of three digits, parted by blanks: 1 002 000 500. A `std::locale` owns the one that it
/// is made with.
class QUORVIL_API MyNumPunct : public std::numpunct<char>
{
public:
    /// @param references  as for every facet: 0 leaves it to the locales, which delete it with the last of them
    /// @threads any   @realtime allocates
    explicit MyNumPunct(size_t references = 0);

    /// Ends the facet; the last locale that has it calls it.
    ///
    /// @threads any   @realtime allocates
    ~MyNumPunct() override;

protected:
    char do_thousands_sep() const override;
    std::string do_grouping() const override;
};

/// The record of one timed operation: a list of names, each with the moment at which the operation got there.
///
/// Everything that it holds lies in one heap: a record of its own, with a private heap of 256 KiB, or one of a
/// `TimeCollectorPool`. Recording takes no memory from the system, no lock, and makes no call but the clock.
///
/// | State | Reached by | `add` | `dump` |
/// |---|---|---|---|
/// | without storage | the constructor over an allocator, `reset(0)` | takes storage from the heap | "no entries" |
/// | empty | `reset`, the constructor with a capacity | up to the capacity without moving the list | "no entries" |
/// | filled | `add` | as above | prints, and changes nothing in the list |
///
/// **Size the heap for the worst case**, with `dump` in it: names of more than 15 characters lie in the heap, length +
/// 1 bytes rounded up to 8, and `dump` copies each of them and makes a blank text for each gap of more than 15
/// characters in the same heap. What these temporaries took is mostly free again only after the next `reset`. A heap
/// that is too small ends the process by the heap's assertion `nextMem + ceilSize <= memEnd`.
///
/// A record has no lock: it belongs to one thread at a time, for `dump` too.
class QUORVIL_API TimeCollector
{
public:
    /// A text in the record's heap. Up to 15 characters lie inside the string object.
    using MyString = std::basic_string<char, std::char_traits<char>, FastAllocator<char>>;

    /// A name and the moment that belongs to it. The name of an entry refers to the record's heap without keeping it
    /// alive: it never leaves its record.
    using Entry = std::pair<MyString, std::chrono::system_clock::time_point>;

    /// Makes an empty record over the heap of `recordAllocator`, of which it takes nothing yet: `reset` prepares it.
    ///
    /// @param recordAllocator  copied; the heap must be empty and serve this record alone
    /// @threads any   @realtime bounded
    explicit TimeCollector(const FastAllocator<Entry>& recordAllocator);

    /// Makes an empty record with a heap of its own of 256 KiB, which is locked into RAM (`mlockall`), and with room
    /// for `atLeastCapacity` entries.
    ///
    /// @param atLeastCapacity  0 to what fits into the heap
    /// @throws std::length_error  "vector::reserve": `atLeastCapacity` is negative, or above what a `std::vector` of
    ///                            entries can hold (53 687 091 where a pointer has 32 bits)
    /// @throws std::bad_alloc  the system has no memory for the heap
    /// @requires `nextMem + ceilSize <= memEnd`: the capacity fits into the heap
    /// @threads any   @realtime allocates
    explicit TimeCollector(int atLeastCapacity);

    TimeCollector(const TimeCollector&) = delete;
    TimeCollector& operator=(const TimeCollector&) = delete;

    /// Forgets all entries, rewinds the heap and makes room for `atLeastCapacity` entries at its start. Its time grows
    /// with the number of entries that go.
    ///
    /// @param atLeastCapacity  0 (no storage at all) to what fits into the heap
    /// @requires `allocator.getHeap()->allFree()`: the record's allocator has a heap, and no handle of `string` or
    ///           `string2` is alive
    /// @requires `(int) entries.capacity() >= atLeastCapacity`
    /// @requires `nextMem + ceilSize <= memEnd`: the capacity fits into the heap
    /// @throws std::length_error  "vector::reserve": `atLeastCapacity` is negative, or above what a `std::vector` of
    ///                            entries can hold; the record is without storage then
    /// @threads one at a time   @realtime bounded
    void reset(int atLeastCapacity);

    /// Appends `name` with the current time of the system clock.
    ///
    /// @param name  copied into the record; without heap space up to 15 characters
    /// @requires `heap`: the record's allocator has one
    /// @requires `nextMem + ceilSize <= memEnd`: a longer name, or an entry above the capacity, fits into the heap
    /// @threads one at a time   @realtime bounded
    void add(std::string_view name);

    /// Appends `name` with a time of the caller's. `dump` prints the entries in the order of the calls, whatever their
    /// times are.
    ///
    /// @param name  copied into the record; without heap space up to 15 characters
    /// @param at    the moment, in the system clock's time
    /// @requires `heap`: the record's allocator has one
    /// @requires `nextMem + ceilSize <= memEnd`: a longer name, or an entry above the capacity, fits into the heap
    /// @threads one at a time   @realtime bounded
    void add(std::string_view name, std::chrono::system_clock::time_point at);

    /// Makes a text in the record's heap, for names that are put together in place. The handle gives it back.
    ///
    /// @param s  the text, or null for an empty one
    /// @return a handle that must end before the next `reset` and before the record
    /// @requires `b.getHeap()`: the record's allocator has a heap
    /// @requires `nextMem + ceilSize <= memEnd`: the string object and its text fit into the heap
    /// @threads one at a time   @realtime bounded
    std::unique_ptr<MyString, StringDeleter> string(const char* s);

    /// Makes a text in the record's heap from the arguments of a string constructor, as in `string2(count, ' ')`.
    ///
    /// @param args  what the constructor takes in front of the allocator
    /// @return a handle that must end before the next `reset` and before the record
    /// @requires `b.getHeap()`: the record's allocator has a heap
    /// @requires `nextMem + ceilSize <= memEnd`: the string object and its text fit into the heap
    /// @throws  what the string's constructor throws; nothing stays in the heap then
    /// @threads one at a time   @realtime bounded
    template <class... Args>
    std::unique_ptr<MyString, StringDeleter> string2(Args&&... args);

    /// Ends a text of `string` or `string2` and gives its memory back. The handles call it; nobody else has to.
    ///
    /// @requires `b.getHeap()`: the record's allocator has a heap
    /// @threads one at a time   @realtime bounded
    void tidyUpString(MyString* s);

    /// Prints the record: a line for each entry, with its time, the time since the first entry and the time since the
    /// one before, all in nanoseconds, a warning behind each entry that lies more than one millisecond after the first,
    /// and a last line with the total; then an empty line, and the stream is flushed. A record without entries prints
    /// "TimeCollector: no entries\n" and flushes nothing.
    ///
    /// @param out        numbers follow its locale and its format. Differences are not clamped: they may be negative
    /// @param nameWidth  names are filled up with blanks to this width, and never cut
    /// @requires `nextMem + ceilSize <= memEnd`: see above
    /// @throws  what `out` throws, if it is set to
    /// @threads one at a time   @realtime I/O
    void dump(std::ostream& out, int nameWidth);

private:
    FastAllocator<Entry> allocator;
    std::vector<Entry, FastAllocator<Entry>> entries;
    // Refers to the same heap without a share in it: copying a share costs two atomic operations an entry.
    FastAllocator<char> nameAllocator;
};

/// Ends a text that lies in a record's heap.
class QUORVIL_API StringDeleter
{
public:
    /// @param record  the record that the text belongs to
    /// @threads any   @realtime bounded
    StringDeleter(TimeCollector* record = nullptr) noexcept
        : tc(record)
    {
    }

    /// Calls `tidyUpString` of the record.
    ///
    /// @requires `tc`
    /// @threads one at a time   @realtime bounded
    void operator()(TimeCollector::MyString* p);

private:
    TimeCollector* tc;
};

/// Gives a record back to its pool.
class QUORVIL_API TimeCollectorDeleter
{
public:
    /// @param pool  the pool that the record belongs to
    /// @threads any   @realtime bounded
    TimeCollectorDeleter(TimeCollectorPool* pool = nullptr) noexcept
        : tcp(pool)
    {
    }

    /// Calls `put` of the pool.
    ///
    /// @requires `tcp`
    /// @threads any   @realtime bounded
    void operator()(TimeCollector* p);

private:
    TimeCollectorPool* tcp;
};

/// A fixed number of timing records, and the thread that prints them, so that a real-time thread can take timings
/// without any output of its own.
///
///     quorvil::TimeCollectorPool pool(std::cout, 12, 4096, 8);
///     auto record = pool.get(16);      // on the real-time thread: no memory from the system, no output
///     record->add("parsed");
///     pool.dump(std::move(record));    // printed by the dump thread, which then returns the record
///
/// A record is always in one of three places: the pool, the hands of one caller (its handle), the queue or the hands of
/// the dump thread. The handle is the permission to touch the record; what was written before `dump` is seen by the
/// dump thread, and what it did is seen after the next `get` of the record. The last record returned is the next one
/// given out.
///
/// Records are printed whole and in the order of their `dump` calls. The stream is written by the dump thread alone; it
/// must outlive the pool.
///
/// | State | `get`, `put` | `dump` | Reached by |
/// |---|---|---|---|
/// | open | serve | queues the record | the constructor |
/// | closed | serve | returns the record unprinted | `close`, after it has printed what was queued |
///
/// Side effects of the constructor, beyond the object: all memory of the process is locked into RAM (`mlockall`);
/// **numbers on `std::cout` are grouped by threes with blanks from then on**, whatever stream the pool prints to, and
/// no other thread may use `std::cout` meanwhile; and **the calling thread is renamed to "Pthread"**, as by every
/// `Pthread`. The dump thread has a stack of 2 MiB, keeps the caller's former name, and inherits its policy and
/// priority.
///
/// All handles must have ended before the pool does. Misuse ends in `util::GeneralException` or an assertion; an
/// exception that the stream throws on the dump thread ends the process.
class QUORVIL_API TimeCollectorPool
{
public:
    /// A record on loan. When it ends, the record goes back to its pool, printed or not.
    using Handle = std::unique_ptr<TimeCollector, TimeCollectorDeleter>;

    /// The stack of the dump thread in KiB.
    static const uint32_t THREAD_STACK_SIZE = 2048;

    /// Takes one locked block of memory, makes all records in it and starts the dump thread.
    ///
    /// @param stream       where records are printed; not owned
    /// @param width        the width that names are filled up to, see `TimeCollector::dump`
    /// @param subHeapSize  bytes for the contents of each record; a multiple of 8 always fits, with anything else
    ///                     the block can be too small
    /// @param count        number of records, 0 to `INT_MAX`; also what the queue holds
    /// @requires `nextMem + ceilSize <= memEnd`
    /// @requires `subHeapAlloc.getHeap().get() == heap.get()`
    /// @throws std::bad_array_new_length  the block's size cannot be counted
    /// @throws std::bad_alloc  the system has no memory; no thread was started
    /// @threads any   @realtime allocates
    TimeCollectorPool(std::ostream& stream, int width, size_t subHeapSize, size_t count);

    TimeCollectorPool(const TimeCollectorPool&) = delete;
    TimeCollectorPool& operator=(const TimeCollectorPool&) = delete;

    /// Closes the pool, so that everything queued is printed, and takes it down. No other thread may be inside an
    /// operation of the pool. What `close` would throw, on the dump thread or where a mutex cannot be locked, ends the
    /// process here.
    ///
    /// @threads one at a time   @realtime waits
    ~TimeCollectorPool();

    /// Lends a record that is empty and has room for `atLeastCapacity` entries. Its time grows with the number of
    /// entries of the record's last use.
    ///
    /// @throws util::GeneralException  "Pool underflow": no record is free. It allocates and announces itself: a
    ///                                 real-time thread that has to expect this calls `tryGet`.
    /// @throws std::length_error  "vector::reserve": `atLeastCapacity` is above `INT_MAX`, or above what a vector of
    ///                            entries can hold; the record is free again
    /// @throws std::system_error  a mutex cannot be locked
    /// @requires `nextMem + ceilSize <= memEnd`: the capacity fits into the record's sub-heap
    /// @requires `allocator.getHeap()->allFree()`: no string handle of the last use is alive
    /// @threads any   @realtime bounded
    Handle get(size_t atLeastCapacity);

    /// As `get`, but gives an empty handle where no record is free: a real-time thread must not pay for an exception.
    ///
    /// @throws std::length_error  as `get`
    /// @throws std::system_error  as `get`
    /// @requires `nextMem + ceilSize <= memEnd`: as `get`
    /// @requires `allocator.getHeap()->allFree()`: as `get`
    /// @threads any   @realtime bounded
    Handle tryGet(size_t atLeastCapacity);

    /// Takes a record back. The handles call it; nobody else has to.
    ///
    /// @throws util::GeneralException  "Pool overflow": all records are there already
    /// @throws std::system_error       the mutex cannot be locked
    /// @threads any   @realtime bounded
    void put(TimeCollector* collector);

    /// Hands a record to the dump thread and leaves the handle empty. The call never waits and writes nothing; it wakes
    /// the dump thread only if the queue was empty. Once the pool is closed the record goes back unprinted; during a
    /// `close` it is printed or goes back. With an empty handle nothing happens.
    ///
    /// Where the queue is full, which records of this pool alone cannot make it, the handle stays with the caller.
    ///
    /// @throws std::system_error  a mutex cannot be locked
    /// @threads any   @realtime bounded
    void dump(Handle&& collector);

    /// Ends the dump thread when it has printed everything queued, and waits for that. Any number of times, from any
    /// number of threads; each returns when the thread has ended. Not from the dump thread itself, that is, not from
    /// within the stream: that would wait for itself.
    ///
    /// @throws std::system_error  `EDEADLK`: called by the dump thread; nothing has changed, and another `close`
    ///                            before or after it ends the pool. Other codes: a mutex cannot be locked
    /// @threads any   @realtime waits
    void close();

    /// The entry of the dump thread: `threadRun` of the pool `arg`.
    ///
    /// @return null
    /// @threads owner   @realtime I/O
    static void* threadFunc(void* arg);

    /// What the dump thread does: prints record after record, returns each to its pool and then flushes the stream,
    /// until the pool is closed and the queue is empty.
    ///
    /// @threads owner   @realtime I/O
    void threadRun();

private:
    using Pool = NonlockingPool<TimeCollector>;
    using Queue = BlockingQueue<Handle, FastAllocator<Handle>>;

    TimeCollectorPool(std::ostream& stream, int width, size_t count, std::shared_ptr<SimpleHeap> block);

    static size_t blockBytes(size_t subHeapSize, size_t count);
    Handle prepare(TimeCollector* collector, size_t atLeastCapacity);
    void returnUnprinted();

    std::ostream& out;
    int nameWidth;
    size_t collectorCount;
    std::shared_ptr<SimpleHeap> heap;
    SubHeap* subHeaps;
    TimeCollector* collectors;
    Pool* pool;
    Queue* queue;
    Pthread thread;
    size_t built;                         // records that are constructed: all, unless the constructor was cut short
    std::mutex closing;                   // held by the one who joins the dump thread
    std::atomic<bool> printing;           // the dump thread is there
    std::atomic<std::thread::id> printer; // the dump thread, as long as it runs
};

inline void TimeCollector::add(std::string_view name)
{
    add(name, std::chrono::system_clock::now());
}

inline void TimeCollector::add(std::string_view name, std::chrono::system_clock::time_point at)
{
    entries.emplace_back(std::piecewise_construct, std::forward_as_tuple(name, nameAllocator),
                         std::forward_as_tuple(at));
}

template <class... Args>
std::unique_ptr<TimeCollector::MyString, StringDeleter> TimeCollector::string2(Args&&... args)
{
    FastAllocator<MyString> stringAllocator(allocator);
    MyString* const string = stringAllocator.allocate(1);
    try {
        ::new (static_cast<void*>(string)) MyString(std::forward<Args>(args)..., FastAllocator<char>(stringAllocator));
    } catch (...) {
        stringAllocator.deallocate(string, 1);
        throw;
    }
    return {string, StringDeleter(this)};
}

} // namespace quorvil

#endif
