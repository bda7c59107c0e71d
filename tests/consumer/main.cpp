// Reaches into each subsystem of the installed library, the inline parts and the exported ones.

#include <Quorvil/CountingSemaphore.h>
#include <Quorvil/QuorvilBlockingQueue.h>
#include <Quorvil/QuorvilFastAllocator.h>
#include <Quorvil/QuorvilInit.h>
#include <Quorvil/QuorvilMystring.h>
#include <Quorvil/QuorvilPthread.h>
#include <Quorvil/ThreadSafeStream.h>
#include <Quorvil/sqlite3cpp.h>

#include <memory>
#include <string>

int main()
{
    const auto heap = std::make_shared<quorvil::SimpleHeap>(4096);
    quorvil::BlockingQueue<int, quorvil::FastAllocator<int>> queue(4, quorvil::FastAllocator<int>(heap));
    util::CountingSemaphore ready(0);
    quorvil::Pthread producer(
        [&]() -> void* {
            queue.push(42);
            ready.post();
            return nullptr;
        },
        64);
    ready.wait();
    producer.join();

    sqlite3cpp::DbCon database(":memory:");
    sqlite3cpp::PrepStat statement(database, "SELECT ? + 1");
    statement.bindInt(1, queue.pop());
    const bool found = statement.step() && statement.columnInt(0) == 43;
    tolmen::mystring word("found");
    word.toUpperCase();
    safeCout << "Quorvil " << QUORVIL_VERSION << ": " << word << std::endl;
    return found ? 0 : 1;
}
