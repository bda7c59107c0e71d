// PageFlow.h: the pages between composing and their place on the disk

#ifndef LABELPRINTER_PAGEFLOW_H
#define LABELPRINTER_PAGEFLOW_H

#include "Image.h"
#include "TimeRecords.h"

#include "Quorvil/CountingSemaphore.h"
#include "Quorvil/QuorvilBlockingQueue.h"
#include "Quorvil/QuorvilFastAllocator.h"
#include "Quorvil/QuorvilNonlockingPool.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace labelPrinter {

class PageFlow;

/// A page on its way, with all that is to be known about it.
struct PageInFlight
{
    int job = 0;
    /// Of the attempt to print the job: no two have the same.
    int run = 0;
    /// From 1 to `pages`.
    int number = 0;
    int pages = 0;
    int dotsPerInch = 0;
    std::string title;
    Image image{1, 1};
    /// Black dots, once the page was fed.
    uint32_t dots = 0;
    /// Empty where times are not wanted, or all records are in use.
    TimeRecords::Handle times;

    /// Notes that the page has got somewhere. It neither allocates nor writes.
    ///
    /// @param station  up to 11 characters
    void reach(std::string_view station);
};

/// Gives a page back to its flow.
class PageReturn
{
public:
    PageReturn(PageFlow* flow = nullptr) noexcept;
    void operator()(PageInFlight* page) const;

private:
    PageFlow* flow;
};

/// The permission to touch a page. When it ends, the page is free again.
using PageHandle = std::unique_ptr<PageInFlight, PageReturn>;

/// Pages made in advance, and the two queues that they wander through: worker, engine, output. A semaphore bounds how
/// many are under way; a queue has room for all of them, so that handing a page on never waits and never fails.
///
/// It must outlive all handles.
class PageFlow
{
public:
    using Queue = quorvil::BlockingQueue<PageHandle, quorvil::FastAllocator<PageHandle>>;

    static constexpr int mostPages = 4;

    PageFlow();
    PageFlow(const PageFlow&) = delete;
    PageFlow& operator=(const PageFlow&) = delete;

    /// A free page, with what its last use left in it; waits for one.
    PageHandle take();

    /// How many pages are under way.
    int inFlight();

    /// From the worker to the engine, and from the engine to the output. The rings lie in the library's heap, whose
    /// memory is locked.
    Queue& toEngine();
    Queue& toOutput();

private:
    friend class PageReturn;

    void giveBack(PageInFlight* page);

    std::array<PageInFlight, mostPages> pages;
    quorvil::NonlockingPool<PageInFlight> pool;
    util::CountingSemaphore freePages;
    Queue engineQueue;
    Queue outputQueue;
};

} // namespace labelPrinter

#endif
