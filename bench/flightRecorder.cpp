// The flight recorder: a trace text on its way into the ring, beside the lock and the copy that it needs at least, and
// beside a logger's ring of messages.

#include "Quorvil/QuorvilLimitedBuffer.h"
#include "bench/support.h"

#ifdef QUORVIL_PEER_SPDLOG
#include "bench/peers/spdlog.h"
#endif

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>

namespace {

constexpr std::size_t capacity = 64 * 1024;
const std::string text64 = std::string(63, '-') + '\n';

/// What a caller writes by hand: a mutex, and the copy into a ring of bytes.
class PlainRing
{
public:
    void add(const char* text, std::size_t length)
    {
        const std::lock_guard lock(mutex);
        append(text, length);
    }

    __attribute__((format(printf, 2, 3))) void addf(const char* format, ...)
    {
        const std::lock_guard lock(mutex);
        va_list arguments;
        va_start(arguments, format);
        const int length = std::vsnprintf(formatted, sizeof formatted, format, arguments);
        va_end(arguments);
        append(formatted, static_cast<std::size_t>(length));
    }

    std::string newest(std::size_t length) const
    {
        return {ring.get() + next - length, length};
    }

private:
    void append(const char* text, std::size_t length)
    {
        const std::size_t first = length < capacity - next ? length : capacity - next;
        std::memcpy(ring.get() + next, text, first);
        std::memcpy(ring.get(), text + first, length - first);
        next = next + length < capacity ? next + length : next + length - capacity;
    }

    std::mutex mutex;
    std::unique_ptr<char[]> ring = std::make_unique<char[]>(capacity);
    std::size_t next = 0;
    char formatted[512];
};

/// Our ring, switched on.
struct Recorder
{
    Recorder()
        : buffer(capacity, 8, [](std::ostream&, const char*) {})
    {
        util::LimitedBuffer::setBufferingActive(true);
    }

    std::string content()
    {
        std::ostringstream out;
        buffer.print(out);
        return out.str();
    }

    util::LimitedBuffer buffer;
};

/// Stops a candidate whose ring does not hold the text that it was given.
bool holds(benchmark::State& state, const std::string& content, const std::string& text)
{
    if (content.find(text) != std::string::npos)
        return true;
    state.SkipWithError("the text is not in the ring");
    return false;
}

void addOurs(benchmark::State& state)
{
    Recorder ours;
    ours.buffer.add(text64.data(), text64.size());
    if (!holds(state, ours.content(), text64))
        return;
    for (auto _ : state)
        ours.buffer.add(text64.data(), text64.size());
}
BENCHMARK(addOurs)->Name("flightRecorder/add-64/add");

void addPlain(benchmark::State& state)
{
    PlainRing plain;
    plain.add(text64.data(), text64.size());
    if (!holds(state, plain.newest(64), text64))
        return;
    for (auto _ : state)
        plain.add(text64.data(), text64.size());
}
BENCHMARK(addPlain)->Name("flightRecorder/add-64/mutexMemcpy");

// The trace of a lock group.
constexpr const char* line = "[labelPrinter/Feeder.cpp:123] LOCK\n";
constexpr const char* file = "labelPrinter/Feeder.cpp";

void addfOurs(benchmark::State& state)
{
    Recorder ours;
    ours.buffer.addf("[%s:%d] LOCK\n", file, 123);
    if (!holds(state, ours.content(), line))
        return;
    for (auto _ : state)
        ours.buffer.addf("[%s:%d] LOCK\n", file, 123);
}
BENCHMARK(addfOurs)->Name("flightRecorder/addf/addf");

void addfPlain(benchmark::State& state)
{
    PlainRing plain;
    plain.addf("[%s:%d] LOCK\n", file, 123);
    if (!holds(state, plain.newest(std::strlen(line)), line))
        return;
    for (auto _ : state)
        plain.addf("[%s:%d] LOCK\n", file, 123);
}
BENCHMARK(addfPlain)->Name("flightRecorder/addf/mutexVsnprintf");

#ifdef QUORVIL_PEER_SPDLOG
void addSpdlog(benchmark::State& state)
{
    bench::SpdlogBacktrace peer(capacity / text64.size());
    peer.add(text64);
    if (!holds(state, peer.content(), text64))
        return;
    for (auto _ : state)
        peer.add(text64);
}
BENCHMARK(addSpdlog)->Name("flightRecorder/add-64/spdlogBacktrace");

void addfSpdlog(benchmark::State& state)
{
    bench::SpdlogBacktrace peer(capacity / text64.size());
    peer.addf("[{}:{}] LOCK\n", file, 123);
    if (!holds(state, peer.content(), line))
        return;
    for (auto _ : state)
        peer.addf("[{}:{}] LOCK\n", file, 123);
}
BENCHMARK(addfSpdlog)->Name("flightRecorder/addf/spdlogBacktrace");
#endif

void addSwitched(benchmark::State& state, bool active)
{
    Recorder ours;
    util::LimitedBuffer::setBufferingActive(active);
    for (auto _ : state)
        ours.buffer.add(text64.data(), text64.size());
}
BENCHMARK_CAPTURE(addSwitched, off, false)->Name("flightRecorder/switched-off/off");
BENCHMARK_CAPTURE(addSwitched, on, true)->Name("flightRecorder/switched-off/on");

/// All lists stand through a round of the ring, at whose end they are added again: their cost counts, too.
void addBeforeLists(benchmark::State& state, int lists)
{
    constexpr std::size_t round = capacity / 64 - 1;
    Recorder ours;
    std::size_t added = round;
    for (auto _ : state) {
        if (added == round) {
            for (int i = 0; i < lists; ++i)
                ours.buffer.addStateValueList("8 bytes", 8);
            added = 0;
        }
        ours.buffer.add(text64.data(), text64.size());
        ++added;
    }
}
BENCHMARK_CAPTURE(addBeforeLists, with, 128)->Name("flightRecorder/128-lists/with");
BENCHMARK_CAPTURE(addBeforeLists, without, 0)->Name("flightRecorder/128-lists/without");

/// A list for every eighth text, so that 128 stand at any time, and the oldest goes with each eighth text.
void addAmongLists(benchmark::State& state, bool listed)
{
    Recorder ours;
    unsigned added = 0;
    for (auto _ : state) {
        if (listed && added++ % 8 == 0)
            ours.buffer.addStateValueList("8 bytes", 8);
        ours.buffer.add(text64.data(), text64.size());
    }
}
BENCHMARK_CAPTURE(addAmongLists, with, true)->Name("flightRecorder/128-lists-moving/with");
BENCHMARK_CAPTURE(addAmongLists, without, false)->Name("flightRecorder/128-lists-moving/without");

} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, true);
}
