#include "Quorvil/QuorvilTimeCollector.h"

#include "Quorvil/QuorvilAssert.h"
#include "Quorvil/QuorvilLog.h"

#include <cerrno>
#include <climits>
#include <iomanip>
#include <iostream>
#include <stdexcept>
#include <system_error>

QUORVIL_LOG_GROUP("Quorvil");

namespace quorvil {
namespace {

constexpr char source[] = "Quorvil/QuorvilTimeCollector";

long long nanoseconds(std::chrono::system_clock::time_point at)
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(at.time_since_epoch()).count();
}

/// `to` minus `from`; callers may give any two times, so that it wraps instead of overflowing.
long long difference(long long to, long long from)
{
    return static_cast<long long>(static_cast<unsigned long long>(to) - static_cast<unsigned long long>(from));
}

/// A sum or product that cannot be counted becomes SIZE_MAX: a length that the heap refuses.
size_t plus(size_t a, size_t b)
{
    size_t result;
    return __builtin_add_overflow(a, b, &result) ? SIZE_MAX : result;
}

size_t times(size_t a, size_t b)
{
    size_t result;
    return __builtin_mul_overflow(a, b, &result) ? SIZE_MAX : result;
}

/// What an object is counted with, wherever it lies.
template <class T>
constexpr size_t rounded = (sizeof(T) + 7) / 8 * 8;

/// The classic locale with grouped numbers. The facet belongs to the locale once that is made, and not before.
std::locale groupedLocale()
{
    auto punctuation = std::make_unique<MyNumPunct>();
    std::locale locale(std::locale::classic(), punctuation.get());
    static_cast<void>(punctuation.release());
    return locale;
}

} // namespace

MyNumPunct::MyNumPunct(size_t references)
    : std::numpunct<char>(references)
{
}

MyNumPunct::~MyNumPunct() = default;

char MyNumPunct::do_thousands_sep() const
{
    return ' ';
}

std::string MyNumPunct::do_grouping() const
{
    return "\3";
}

TimeCollector::TimeCollector(const FastAllocator<Entry>& recordAllocator)
    : allocator(recordAllocator)
    , entries(allocator)
    , nameAllocator(std::shared_ptr<IHeap>(std::shared_ptr<IHeap>(), allocator.getHeap().get()))
{
}

TimeCollector::TimeCollector(int atLeastCapacity)
    : TimeCollector(FastAllocator<Entry>(std::make_shared<SimpleHeap>(0x40000)))
{
    entries.reserve(static_cast<size_t>(atLeastCapacity));
}

void TimeCollector::reset(int atLeastCapacity)
{
    static constexpr char context[] = "void quorvil::TimeCollector::reset(int)";
    // The storage goes too: as long as it stands the heap is not empty and cannot rewind.
    entries.clear();
    decltype(entries)(allocator).swap(entries);
    const std::shared_ptr<IHeap> heap = allocator.getHeap();
    intern::require(heap != nullptr && heap->allFree(), "allocator.getHeap()->allFree()", source, __LINE__, context);
    // A negative number becomes a length that the vector refuses.
    entries.reserve(static_cast<size_t>(atLeastCapacity));
    intern::require(static_cast<int>(entries.capacity()) >= atLeastCapacity,
                    "(int) entries.capacity() >= atLeastCapacity", source, __LINE__, context);
}

std::unique_ptr<TimeCollector::MyString, StringDeleter> TimeCollector::string(const char* s)
{
    return s != nullptr ? string2(s) : string2();
}

void TimeCollector::tidyUpString(MyString* s)
{
    FastAllocator<MyString> stringAllocator(allocator);
    s->~MyString();
    stringAllocator.deallocate(s, 1);
}

void TimeCollector::dump(std::ostream& out, int nameWidth)
{
    if (entries.empty()) {
        out << "TimeCollector: no entries\n";
        return;
    }
    const long long first = nanoseconds(entries.front().second);
    long long last = first;
    for (const Entry& original : entries) {
        const Entry entry = original;
        const long long t = nanoseconds(entry.second);
        out << entry.first;
        const int64_t gap = nameWidth - static_cast<int64_t>(entry.first.size());
        if (gap > 0)
            out << *string2(static_cast<size_t>(gap), ' ');
        out << ": " << t << " ns    (first + " << std::setw(9) << difference(t, first) << " ns)   (last + "
            << std::setw(9) << difference(t, last) << " ns)\n";
        last = t;
        if (difference(t, first) > 1000000)
            out << "=====> Achtung 1ms ueberschritten\n";
    }
    out << "===== Insgesamt: " << difference(last, first) << " ns"
        << "\n"
        << std::endl;
}

void StringDeleter::operator()(TimeCollector::MyString* p)
{
    intern::require(tc != nullptr, "tc", source, __LINE__,
                    "void quorvil::StringDeleter::operator()(quorvil::TimeCollector::MyString*)");
    tc->tidyUpString(p);
}

void TimeCollectorDeleter::operator()(TimeCollector* p)
{
    intern::require(tcp != nullptr, "tcp", source, __LINE__,
                    "void quorvil::TimeCollectorDeleter::operator()(quorvil::TimeCollector*)");
    tcp->put(p);
}

const uint32_t TimeCollectorPool::THREAD_STACK_SIZE;

size_t TimeCollectorPool::blockBytes(size_t subHeapSize, size_t count)
{
    static_assert(sizeof(Handle) % 8 == 0, "the ring takes its slots and no more");
    // The pool counts its objects in an int.
    if (count > INT_MAX)
        return SIZE_MAX;
    const size_t ring = times(count + 1, sizeof(Handle));
    const size_t records = times(count, plus(subHeapSize, rounded<SubHeap> + rounded<TimeCollector>));
    return plus(plus(ring, records), rounded<Pool> + rounded<Queue>);
}

TimeCollectorPool::TimeCollectorPool(std::ostream& stream, int width, size_t count, std::shared_ptr<SimpleHeap> block)
    : out(stream)
    , nameWidth(width)
    , collectorCount(count)
    , heap(std::move(block))
    , subHeaps(nullptr)
    , collectors(nullptr)
    , pool(nullptr)
    , queue(nullptr)
    , built(0)
    , printing(false)
{
}

// The object counts as constructed once the first constructor has run: where the second one is cut short by an
// exception, the destructor takes down what stands.
TimeCollectorPool::TimeCollectorPool(std::ostream& stream, int width, size_t subHeapSize, size_t count)
    : TimeCollectorPool(stream, width, count, std::make_shared<SimpleHeap>(blockBytes(subHeapSize, count)))
{
    std::cout.imbue(groupedLocale());

    FastAllocator<SubHeap> subHeapAlloc(heap);
    intern::require(subHeapAlloc.getHeap().get() == heap.get(), "subHeapAlloc.getHeap().get() == heap.get()", source,
                    __LINE__, "quorvil::TimeCollectorPool::TimeCollectorPool(std::ostream&, int, size_t, size_t)");
    subHeaps = subHeapAlloc.allocate(collectorCount);
    collectors = FastAllocator<TimeCollector>(subHeapAlloc).allocate(collectorCount);
    for (; built < collectorCount; ++built) {
        auto* const subHeap = ::new (static_cast<void*>(subHeaps + built)) SubHeap(*heap, subHeapSize);
        // The sub-heap is not the pointer's to end. Where the pointer cannot be made, the sub-heap goes with the block.
        const std::shared_ptr<SubHeap> shared(subHeap, EmptyDeleter<SubHeap>());
        ::new (static_cast<void*>(collectors + built)) TimeCollector(FastAllocator<TimeCollector::Entry>(shared));
    }
    auto* const poolMemory = FastAllocator<Pool>(subHeapAlloc).allocate(1);
    pool = ::new (static_cast<void*>(poolMemory)) Pool(collectors, static_cast<int>(collectorCount));
    auto* const queueMemory = FastAllocator<Queue>(subHeapAlloc).allocate(1);
    queue = ::new (static_cast<void*>(queueMemory)) Queue(collectorCount, FastAllocator<Handle>(subHeapAlloc));

    thread = Pthread(threadFunc, this, THREAD_STACK_SIZE);
    printing = true;
}

TimeCollectorPool::~TimeCollectorPool()
{
    close();
    const FastAllocator<SubHeap> subHeapAlloc(heap);
    if (queue != nullptr) {
        queue->~Queue();
        FastAllocator<Queue>(subHeapAlloc).deallocate(queue, 1);
    }
    if (pool != nullptr) {
        pool->~Pool();
        FastAllocator<Pool>(subHeapAlloc).deallocate(pool, 1);
    }
    while (built > 0) {
        --built;
        collectors[built].~TimeCollector();
        subHeaps[built].~SubHeap();
    }
    if (collectors != nullptr)
        FastAllocator<TimeCollector>(subHeapAlloc).deallocate(collectors, collectorCount);
    if (subHeaps != nullptr)
        FastAllocator<SubHeap>(subHeapAlloc).deallocate(subHeaps, collectorCount);
}

TimeCollectorPool::Handle TimeCollectorPool::get(size_t atLeastCapacity)
{
    return prepare(pool->get(), atLeastCapacity);
}

TimeCollectorPool::Handle TimeCollectorPool::tryGet(size_t atLeastCapacity)
{
    TimeCollector* const collector = pool->tryGet();
    return collector != nullptr ? prepare(collector, atLeastCapacity) : Handle();
}

TimeCollectorPool::Handle TimeCollectorPool::prepare(TimeCollector* collector, size_t atLeastCapacity)
{
    // From here on every way out without the handle gives the record back.
    Handle handle(collector, TimeCollectorDeleter(this));
    if (atLeastCapacity > INT_MAX)
        throw std::length_error("vector::reserve");
    handle->reset(static_cast<int>(atLeastCapacity));
    return handle;
}

void TimeCollectorPool::put(TimeCollector* collector)
{
    pool->put(collector);
}

void TimeCollectorPool::dump(Handle&& collector)
{
    if (collector == nullptr)
        return;
    if (!printing) {
        collector.reset();
        return;
    }
    queue->push(std::move(collector));
    // Between the look and the push the dump thread may have ended, and the closer may have drained the queue. Either
    // the closer still finds the record there, or its store is seen here: the queue's mutex orders the two.
    if (!printing)
        returnUnprinted();
}

void TimeCollectorPool::close()
{
    // Before the lock: whoever holds it may be waiting for this very thread.
    if (printer.load() == std::this_thread::get_id())
        throw std::system_error(EDEADLK, std::generic_category());
    const std::lock_guard lock(closing);
    if (!printing)
        return;
    queue->close();
    thread.join();
    printing = false;
    returnUnprinted();
}

void TimeCollectorPool::returnUnprinted()
{
    while (queue->tryPop() != nullptr) {
        // The handle has ended, and the record is back.
    }
}

void* TimeCollectorPool::threadFunc(void* arg)
{
    auto* const pool = static_cast<TimeCollectorPool*>(arg);
    pool->printer = std::this_thread::get_id();
    pool->threadRun();
    // When the thread has ended, its id may become another thread's.
    pool->printer = std::thread::id();
    return nullptr;
}

void TimeCollectorPool::threadRun()
{
    for (;;) {
        Handle collector;
        try {
            collector = queue->pop();
        } catch (const BlockingQueueCanceledException&) {
            break;
        } catch (const BlockingQueueClosedException&) {
            break;
        }
        collector->dump(out, nameWidth);
        collector.reset();
        out.flush();
    }
    out.flush();
}

} // namespace quorvil
