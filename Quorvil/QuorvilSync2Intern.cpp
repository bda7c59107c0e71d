#include "Quorvil/QuorvilSync2Intern.h"

#include "Quorvil/QuorvilAssert.h"

#include <utility>

namespace quorvil::sync2::intern {

namespace {

using quorvil::intern::require;

constexpr const char* source = "Quorvil/QuorvilSync2Intern";

} // namespace

Pool::Pool() = default;
Pool::~Pool() = default;

Element::Element(Pool* pool_)
    : pool(pool_)
{
}

Element::~Element() = default;

void Element::setPool(Pool* pool_)
{
    pool = pool_;
}

void Element::goBackToPool(sync::Guard& guard)
{
    require(pool != nullptr, "pool", source, 187,
            "void quorvil::sync2::intern::Element::goBackToPool(quorvil::sync::Guard&)");
    pool->takeBack(guard, this);
}

Element* Element::getNext() const
{
    return next;
}

Pool* Element::getPool() const
{
    return pool;
}

Fifo::Fifo() = default;

void Fifo::pushBack(Element* e)
{
    constexpr const char* function = "void quorvil::sync2::intern::Fifo::pushBack(quorvil::sync2::intern::Element*)";
    require(e->next == nullptr, "!e->next", source, 66, function);
    if (tail != nullptr)
        tail->next = e;
    else
        head = e;
    tail = e;
    require(dbgInvariant(), "dbgInvariant()", source, 74, function);
}

Element* Fifo::popFront()
{
    if (head == nullptr)
        return nullptr;
    Element* const first = head;
    head = std::exchange(first->next, nullptr);
    if (head == nullptr)
        tail = nullptr;
    require(dbgInvariant(), "dbgInvariant()", source, 99,
            "quorvil::sync2::intern::Element* quorvil::sync2::intern::Fifo::popFront()");
    return first;
}

void Fifo::moveRange(Element* fromAfterThis, Element* fromUntilThis, Fifo& to, Element* toAfterThis)
{
    constexpr const char* function =
        "void quorvil::sync2::intern::Fifo::moveRange(quorvil::sync2::intern::Element*, "
        "quorvil::sync2::intern::Element*, quorvil::sync2::intern::Fifo&, quorvil::sync2::intern::Element*)";
    require(fromUntilThis != nullptr, "fromUntilThis", source, 119, function);

    Element*& beforeRun = fromAfterThis != nullptr ? fromAfterThis->next : head;
    Element* const first = beforeRun;
    Element* const rest = fromUntilThis->next;
    beforeRun = rest;

    // Read only now: in one and the same list the gap may have just been closed here.
    Element*& place = toAfterThis != nullptr ? toAfterThis->next : to.head;
    fromUntilThis->next = place;
    place = first;

    // In this order: a run that comes last again, in one and the same list, is the tail in the end.
    if (rest == nullptr)
        tail = fromAfterThis;
    if (fromUntilThis->next == nullptr)
        to.tail = fromUntilThis;
    require(dbgInvariant(), "dbgInvariant()", source, 182, function);
}

void Fifo::allBackToPools(sync::Guard& guard)
{
    constexpr const char* function = "void quorvil::sync2::intern::Fifo::allBackToPools(quorvil::sync::Guard&)";
    while (head != nullptr) {
        Element* const e = popFront();
        require(e != nullptr, "e", source, 106, function);
        e->goBackToPool(guard);
    }
    require(dbgInvariant(), "dbgInvariant()", source, 110, function);
}

bool Fifo::dbgInvariant() const
{
    return (head == nullptr) == (tail == nullptr);
}

PoolAccess::PoolAccess(sync::Guard& guard_, Element* element_)
    : guard(guard_)
    , element(element_)
{
}

PoolAccess::PoolAccess(PoolAccess&& other) noexcept
    : guard(other.guard)
    , element(other.release())
{
}

PoolAccess& PoolAccess::operator=(PoolAccess&& other) noexcept
{
    std::swap(element, other.element);
    return *this;
}

PoolAccess::~PoolAccess()
{
    if (element != nullptr)
        element->goBackToPool(guard);
}

Element* PoolAccess::release()
{
    return std::exchange(element, nullptr);
}

Element* PoolAccess::get() const
{
    return element;
}

} // namespace quorvil::sync2::intern
