#include "Quorvil/QuorvilBlockingQueue.h"

namespace quorvil {

BlockingQueueClosedException::BlockingQueueClosedException()
    : std::underflow_error("BlockingQueue closed")
{
}

BlockingQueueClosedException::~BlockingQueueClosedException() = default;

BlockingQueueCanceledException::BlockingQueueCanceledException()
    : std::underflow_error("BlockingQueue canceled")
{
}

BlockingQueueCanceledException::~BlockingQueueCanceledException() = default;

FencedQueueOverflowException::FencedQueueOverflowException()
    : std::runtime_error("FencedQueueOverflowException")
{
}

FencedQueueOverflowException::~FencedQueueOverflowException() = default;

} // namespace quorvil
