#include "Quorvil/QuorvilBlockingQueue.h"
#include "Quorvil/QuorvilFastAllocator.h"
#include "Quorvil/QuorvilPthread.h"
#include "Quorvil/ThreadSafeStream.h"

#include <memory>
#include <utility>

using Page = std::unique_ptr<int>; // what is handed over is movable, and empty by default

int main()
{
    // At start-up: the queue lies in memory that is locked into RAM.
    quorvil::SimpleHeap heap(4096);
    const std::shared_ptr<quorvil::IHeap> shared(&heap, quorvil::EmptyDeleter<quorvil::IHeap>());
    quorvil::BlockingQueue<Page, quorvil::FastAllocator<Page>> queue(2, shared);

    for (int number = 1; number <= 3; ++number) {
        auto page = std::make_unique<int>(number);
        if (!queue.push(std::move(page))) // never waits for room; what it refuses is still in `page`
            safeCout << "full, page " << number << " is not taken\n";
    }

    const auto consume = [&]() -> void* {
        try {
            for (;;) {
                const Page page = queue.pop();
                safeCout << "page " << *page << '\n';
            }
        } catch (const quorvil::BlockingQueueClosedException&) {
            return nullptr; // closed, and all pages are taken
        }
    };
    quorvil::Pthread consumer(consume, 256); // 256 KiB of stack
    queue.close();
    consumer.join();
}
