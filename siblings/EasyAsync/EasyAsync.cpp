#include "siblings/EasyAsync/EasyAsync.h"

#include <chrono>
#include <iterator>
#include <list>
#include <mutex>
#include <utility>

namespace quorvil::easyAsyncIntern {

namespace {

constinit std::mutex storeMutex;

/// Drops what has ended, at the end of the process too: the store itself is never destroyed.
void dropEnded(std::list<std::future<void>>& futures)
{
    for (auto kept = futures.begin(); kept != futures.end();) {
        const bool hasEnded = kept->wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        kept = hasEnded ? futures.erase(kept) : std::next(kept);
    }
}

class Store
{
public:
    Store()
        : futures(*new std::list<std::future<void>>)
    {
    }

    ~Store()
    {
        const std::lock_guard lock(storeMutex);
        dropEnded(futures);
    }

    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    std::list<std::future<void>>& futures;
};

} // namespace

void storeFuture(std::future<void>&& future)
{
    static const Store store;
    const std::lock_guard lock(storeMutex);
    dropEnded(store.futures);
    store.futures.push_back(std::move(future));
}

} // namespace quorvil::easyAsyncIntern
