#include "RecentJobs.h"

namespace labelPrinter {

using quorvil::sync2::intern::Element;
using quorvil::sync2::intern::PoolAccess;

RecentJobs::RecentJobs()
{
    for (Ended& job : all) {
        job.setPool(this);
        unused.pushBack(&job);
    }
}

RecentJobs::~RecentJobs()
{
    // An element ends in no list.
    while (ended.popFront() != nullptr || unused.popFront() != nullptr) {
    }
}

void RecentJobs::add(quorvil::sync::Guard& guard, int job, const char* state)
{
    if (count == all.size())
        ended.popFront()->goBackToPool(guard);
    PoolAccess free(guard, unused.popFront());
    auto* const added = static_cast<Ended*>(free.get());
    added->job = job;
    added->state = state;
    ended.pushBack(free.release());
    ++count;
}

void RecentJobs::takeBack(quorvil::sync::Guard&, Element* element)
{
    unused.pushBack(element);
    --count;
}

void RecentJobs::print(std::ostream& out)
{
    // A list is read from its head alone: each job goes once around.
    for (size_t i = 0; i < count; ++i) {
        auto* const job = static_cast<Ended*>(ended.popFront());
        out << (i == 0 ? "" : ", ") << job->job << " " << job->state;
        ended.pushBack(job);
    }
    if (count == 0)
        out << "none";
}

} // namespace labelPrinter
