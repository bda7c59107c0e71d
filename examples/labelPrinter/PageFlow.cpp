#include "PageFlow.h"

#include "Trace.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

namespace labelPrinter {

namespace {

quorvil::FastAllocator<PageHandle> lockedMemory()
{
    return quorvil::FastAllocator<PageHandle>(
        std::shared_ptr<quorvil::IHeap>(&quorvil::SimpleHeap::singleton, quorvil::EmptyDeleter<quorvil::IHeap>()));
}

} // namespace

void PageInFlight::reach(std::string_view station)
{
    std::array<char, 32> text{};
    std::memcpy(text.data(), station.data(), std::min(station.size(), text.size() - 1));
    traceStation(number, text.data());
    if (times)
        times->add(station);
}

PageReturn::PageReturn(PageFlow* theFlow) noexcept
    : flow(theFlow)
{
}

void PageReturn::operator()(PageInFlight* page) const
{
    flow->giveBack(page);
}

PageFlow::PageFlow()
    : pool(pages.data(), mostPages)
    , freePages(mostPages)
    , engineQueue(mostPages, lockedMemory())
    , outputQueue(mostPages, lockedMemory())
{
}

PageHandle PageFlow::take()
{
    // Who has a count of the semaphore finds a page in the pool.
    freePages.wait();
    return {pool.get(), PageReturn(this)};
}

void PageFlow::giveBack(PageInFlight* page)
{
    page->times.reset();
    pool.put(page);
    freePages.post();
}

int PageFlow::inFlight()
{
    return mostPages - freePages.getValue();
}

PageFlow::Queue& PageFlow::toEngine()
{
    return engineQueue;
}

PageFlow::Queue& PageFlow::toOutput()
{
    return outputQueue;
}

} // namespace labelPrinter
