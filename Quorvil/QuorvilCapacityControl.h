// QuorvilCapacityControl.h: a named counter that refuses a booking beyond its capacity
// Memory and queues, on Foundation

#ifndef QUORVIL_QUORVILCAPACITYCONTROL_H
#define QUORVIL_QUORVILCAPACITYCONTROL_H

#include "Quorvil/QuorvilExport.h"

#include <memory>
#include <string>

namespace quorvil {

/// Counts how much of some resource is booked. It is a check and no semaphore: it never waits for something to become
/// free. A refusal is an exception, which allocates and announces itself; after it the control is unchanged and usable.
class QUORVIL_API CapacityControl
{
public:
    /// A control that starts with `size` booked. The numbers are not checked: one that starts above its capacity
    /// accepts `decreaseSize` and refuses every `increaseSize`, until its size has come down.
    ///
    /// @param name  its name in messages
    /// @throws std::bad_alloc  the system has no memory left
    /// @threads any   @realtime allocates
    static std::shared_ptr<CapacityControl> create(std::string name, int capacity, int size);

    CapacityControl() = default;

    /// Forgets what is booked.
    ///
    /// @threads one at a time   @realtime allocates
    virtual ~CapacityControl();

    CapacityControl(const CapacityControl&) = delete;
    CapacityControl& operator=(const CapacityControl&) = delete;

    /// Books `sizeIncrement`. The capacity itself can be reached.
    ///
    /// @throws util::GeneralException  more would be booked than the capacity: "Capacity exceeded in CapacityControl ",
    /// the name, ": ", the size, " + ", the increment, " > ", the capacity
    /// @requires `sizeIncrement >= 0`
    /// @threads one at a time   @realtime bounded
    virtual void increaseSize(int sizeIncrement) = 0;

    /// Gives `sizeDecrement` back.
    ///
    /// @throws util::GeneralException  less is booked: "Illegal argument for CapacityControl::decreaseSize: size = ",
    /// the size, " < ", the decrement, " = sizeDecrement"
    /// @requires `sizeDecrement >= 0`
    /// @threads one at a time   @realtime bounded
    virtual void decreaseSize(int sizeDecrement) = 0;
};

} // namespace quorvil

#endif
