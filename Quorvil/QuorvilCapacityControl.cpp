#include "Quorvil/QuorvilCapacityControl.h"

#include "Quorvil/GeneralException.h"
#include "Quorvil/QuorvilAssert.h"

#include <utility>

namespace quorvil {

class CapacityControlImpl : public CapacityControl
{
public:
    CapacityControlImpl(std::string name, int capacity, int size);

    void increaseSize(int sizeIncrement) override;
    void decreaseSize(int sizeDecrement) override;

private:
    const std::string name;
    const int capacity;
    int size;
};

CapacityControl::~CapacityControl() = default;

std::shared_ptr<CapacityControl> CapacityControl::create(std::string name, int capacity, int size)
{
    return std::make_shared<CapacityControlImpl>(std::move(name), capacity, size);
}

CapacityControlImpl::CapacityControlImpl(std::string name_, int capacity_, int size_)
    : name(std::move(name_))
    , capacity(capacity_)
    , size(size_)
{
}

void CapacityControlImpl::increaseSize(int sizeIncrement)
{
    intern::require(sizeIncrement >= 0, "sizeIncrement >= 0", "Quorvil/QuorvilCapacityControl", __LINE__,
                    "virtual void quorvil::CapacityControlImpl::increaseSize(int)");
    // In the wider type, since the sum of two ints may be none.
    if (static_cast<long long>(size) + sizeIncrement <= capacity) {
        size += sizeIncrement;
        return;
    }
    throw util::GeneralException("Capacity exceeded in CapacityControl " + name + ": " + std::to_string(size) + " + " +
                                     std::to_string(sizeIncrement) + " > " + std::to_string(capacity),
                                 false);
}

void CapacityControlImpl::decreaseSize(int sizeDecrement)
{
    intern::require(sizeDecrement >= 0, "sizeDecrement >= 0", "Quorvil/QuorvilCapacityControl", __LINE__,
                    "virtual void quorvil::CapacityControlImpl::decreaseSize(int)");
    if (size >= sizeDecrement) {
        size -= sizeDecrement;
        return;
    }
    throw util::GeneralException("Illegal argument for CapacityControl::decreaseSize: size = " + std::to_string(size) +
                                     " < " + std::to_string(sizeDecrement) + " = sizeDecrement",
                                 false);
}

} // namespace quorvil
