#include "siblings/EasyAsync/EasyAsync.h"

#include <chrono>
#include <list>
#include <mutex>
#include <utility>

namespace quorvil::easyAsyncIntern {

namespace {

constinit std::mutex storeMutex;

/// Made at the first call, and never destroyed.
std::list<std::future<void>>& store()
{
    static auto* const futures = new std::list<std::future<void>>;
    return *futures;
}

} // namespace

void storeFuture(std::future<void>&& future)
{
    // Declared first, so that it ends last: ended futures go outside the lock.
    std::list<std::future<void>> ended;
    const std::lock_guard lock(storeMutex);
    std::list<std::future<void>>& futures = store();
    for (auto kept = futures.begin(); kept != futures.end();) {
        const auto next = std::next(kept);
        if (kept->wait_for(std::chrono::seconds(0)) == std::future_status::ready)
            ended.splice(ended.end(), futures, kept);
        kept = next;
    }
    futures.push_back(std::move(future));
}

} // namespace quorvil::easyAsyncIntern
