#include "siblings/StampGate/StampGate.h"

#include <atomic>

namespace {

// Constant-initialised, so that a call during the load of another library finds them whatever the order.
constinit std::atomic<int> calls{0};
constinit std::atomic<int> last{0};

} // namespace

int stampGate(int stamp)
{
    last = stamp;
    ++calls;
    return 0;
}

int stampGateCalls()
{
    return calls;
}

int stampGateLast()
{
    return last;
}
