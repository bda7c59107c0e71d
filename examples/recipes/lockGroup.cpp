#include "Quorvil/QuorvilLimitedBuffer.h"
#include "Quorvil/QuorvilSyncLockGroup.h"
#include "Quorvil/Thread.h"

#include <memory>
#include <ostream>

int main()
{
    // What a warning prints: the trace of the last locks, and whatever else was added.
    util::gl_pTrenvikLimitedBuffer =
        std::make_shared<util::LimitedBuffer>(0x4000, 4, [](std::ostream&, const char*) {});
    util::LimitedBuffer::setBufferingActive(true);

    quorvil::sync::LockGroup group;
    if (group.lock("recipes/lockGroup", __LINE__)) // waits for a second at most
        group.unlock("recipes/lockGroup", __LINE__);

    const quorvil::sync::Guard guard = group.guard("recipes/lockGroup", __LINE__);
    util::Thread::msleep(10); // longer than 4 ms, and so the guard warns at its end
}
