// Pool-backed lists, against lists of numbers.

#include "Quorvil/QuorvilSync2Intern.h"
#include "tests/support/allocationCount.h"
#include "tests/support/assertion.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using quorvil::sync::Guard;
using quorvil::sync::LockGroup;
using quorvil::sync2::intern::Element;
using quorvil::sync2::intern::Fifo;
using quorvil::sync2::intern::Pool;
using quorvil::sync2::intern::PoolAccess;

/// Remembers what came home, and under which guard; refuses one element.
struct RecordingPool : Pool
{
    void takeBack(Guard& guard, Element* element) override
    {
        if (element == refused)
            throw std::runtime_error("refused");
        home.emplace_back(&guard, element);
    }

    using Home = std::vector<std::pair<Guard*, Element*>>;
    Home home;
    Element* refused = nullptr;
};

using Model = std::vector<Element*>;

/// Empties the list; an element put behind the rest shows that the tail is where it should be.
Model drained(Fifo& list)
{
    Element last;
    list.pushBack(&last);
    Model elements;
    while (Element* const element = list.popFront()) {
        EXPECT_EQ(element->getNext(), nullptr);
        elements.push_back(element);
    }
    EXPECT_EQ(elements.back(), &last);
    elements.pop_back();
    return elements;
}

/// Elements behind `after`, which may be null for the front, counted from the front of the model.
size_t behind(const Model& model, const Element* after)
{
    return after ? static_cast<size_t>(std::find(model.begin(), model.end(), after) - model.begin()) + 1 : 0;
}

/// Moves [first, last) of `from` behind the element before place `to` of `into`, in the lists and in the model.
void moveAndCompare(size_t fromSize, size_t toSize, size_t first, size_t last, size_t place, bool sameList)
{
    std::array<Element, 8> elements;
    Fifo from;
    Fifo other;
    Model modelFrom;
    Model modelOther;
    for (size_t i = 0; i < fromSize + toSize; ++i) {
        (i < fromSize ? from : other).pushBack(&elements[i]);
        (i < fromSize ? modelFrom : modelOther).push_back(&elements[i]);
    }
    Model& modelTo = sameList ? modelFrom : modelOther;
    Element* const fromAfter = first == 0 ? nullptr : modelFrom[first - 1];
    Element* const toAfter = place == 0 ? nullptr : modelTo[place - 1];

    from.moveRange(fromAfter, modelFrom[last - 1], sameList ? from : other, toAfter);

    const auto begin = modelFrom.begin() + static_cast<ptrdiff_t>(first);
    const auto end = modelFrom.begin() + static_cast<ptrdiff_t>(last);
    const Model run(begin, end);
    modelFrom.erase(begin, end);
    modelTo.insert(modelTo.begin() + static_cast<ptrdiff_t>(behind(modelTo, toAfter)), run.begin(), run.end());
    EXPECT_EQ(drained(from), modelFrom) << fromSize << toSize << first << last << place << sameList;
    EXPECT_EQ(drained(other), modelOther) << fromSize << toSize << first << last << place << sameList;
}

TEST(Fifo, MovesEveryRunToEveryPlaceOfAnotherListAndOfItself)
{
    for (size_t fromSize = 1; fromSize <= 4; ++fromSize) {
        for (size_t first = 0; first < fromSize; ++first) {
            for (size_t last = first + 1; last <= fromSize; ++last) {
                for (size_t toSize = 0; toSize <= 3; ++toSize)
                    for (size_t place = 0; place <= toSize; ++place)
                        moveAndCompare(fromSize, toSize, first, last, place, false);
                for (size_t place = 0; place <= fromSize; ++place)
                    if (place <= first || place > last)
                        moveAndCompare(fromSize, 0, first, last, place, true);
            }
        }
    }
}

TEST(Fifo, GivesElementsInTheirOrderAndThenNull)
{
    const support::AllocationCount count;
    Fifo list;
    EXPECT_EQ(list.popFront(), nullptr);
    std::array<Element, 3> elements;
    for (int round = 0; round < 2; ++round) {
        for (Element& element : elements)
            list.pushBack(&element);
        EXPECT_EQ(elements[0].getNext(), &elements[1]);
        EXPECT_EQ(elements[0].getPool(), nullptr);
        for (Element& element : elements)
            EXPECT_EQ(list.popFront(), &element);
        EXPECT_EQ(list.popFront(), nullptr);
        EXPECT_TRUE(list.dbgInvariant());
    }
    EXPECT_EQ(count.allocations(), 0U);
}

class PoolsAndGuard : public testing::Test
{
protected:
    LockGroup group;
    Guard guard{group, "sync2", 1};
    RecordingPool pool;
    RecordingPool other;
    std::array<Element, 3> elements;
};

using FifoOfPools = PoolsAndGuard;

TEST_F(FifoOfPools, SendsEachElementHomeInOrder)
{
    Fifo list;
    list.allBackToPools(guard);
    for (Element& element : elements) {
        element.setPool(&element == &elements[1] ? &other : &pool);
        list.pushBack(&element);
    }
    list.allBackToPools(guard);
    EXPECT_EQ(pool.home, (RecordingPool::Home{{&guard, &elements[0]}, {&guard, &elements[2]}}));
    EXPECT_EQ(other.home, (RecordingPool::Home{{&guard, &elements[1]}}));
    EXPECT_EQ(list.popFront(), nullptr);
}

TEST_F(FifoOfPools, KeepsTheRestWhenAPoolThrows)
{
    Fifo list;
    for (Element& element : elements) {
        element.setPool(&pool);
        list.pushBack(&element);
    }
    pool.refused = &elements[1];
    EXPECT_THROW(list.allBackToPools(guard), std::runtime_error);
    EXPECT_EQ(pool.home, (RecordingPool::Home{{&guard, &elements[0]}}));
    EXPECT_EQ(drained(list), (Model{&elements[2]}));
}

using PoolAccessTest = PoolsAndGuard;

TEST_F(PoolAccessTest, SendsHomeWhatItHoldsAtItsEnd)
{
    static_assert(std::is_nothrow_move_constructible_v<PoolAccess> && std::is_nothrow_move_assignable_v<PoolAccess>);
    for (Element& element : elements)
        element.setPool(&pool);
    Guard nested(group, "sync2", 2);
    std::optional<PoolAccess> first(std::in_place, guard, &elements[0]);
    std::optional<PoolAccess> second(std::in_place, nested, &elements[1]);
    PoolAccess moved(std::move(*first));
    EXPECT_EQ(first->get(), nullptr);
    first.reset();
    EXPECT_TRUE(pool.home.empty());

    *second = std::move(moved);
    EXPECT_EQ(second->get(), &elements[0]);
    second.reset();
    EXPECT_EQ(pool.home, (RecordingPool::Home{{&nested, &elements[0]}}));

    EXPECT_EQ(moved.release(), &elements[1]);
    EXPECT_EQ(moved.get(), nullptr);
    {
        const PoolAccess third(guard, &elements[2]);
    }
    EXPECT_EQ(pool.home.back(), (std::pair<Guard*, Element*>{&guard, &elements[2]}));
}

using Sync2DeathTest = PoolsAndGuard;

TEST_F(Sync2DeathTest, MisuseFailsItsAssertion)
{
    const auto at = [](int line, const char* expression, const char* function) {
        return "QuorvilSync2Intern:" + std::to_string(line) + ": " +
               support::literal("void quorvil::sync2::intern::" + std::string(function) + ": Assertion `" + expression +
                                "' failed.");
    };
    const char* const pushBack = "Fifo::pushBack(quorvil::sync2::intern::Element*)";
    const char* const moveRange = "Fifo::moveRange(quorvil::sync2::intern::Element*, quorvil::sync2::intern::Element*, "
                                  "quorvil::sync2::intern::Fifo&, quorvil::sync2::intern::Element*)";
    Fifo empty;
    Fifo list;
    list.pushBack(&elements[0]);
    list.pushBack(&elements[1]);
    EXPECT_DEATH(list.pushBack(&elements[0]), at(66, "!e->next", pushBack));
    EXPECT_DEATH(list.moveRange(nullptr, nullptr, empty, nullptr), at(119, "fromUntilThis", moveRange));
    EXPECT_DEATH(empty.moveRange(nullptr, &elements[0], list, nullptr), at(182, "dbgInvariant()", moveRange));
    EXPECT_DEATH(elements[0].goBackToPool(guard), at(187, "pool", "Element::goBackToPool(quorvil::sync::Guard&)"));

    // A run that is moved behind an element of no list leaves a list with a tail and no head.
    list.moveRange(nullptr, &elements[0], empty, &elements[2]);
    EXPECT_FALSE(empty.dbgInvariant());
    Element another;
    EXPECT_DEATH(empty.pushBack(&another), at(74, "dbgInvariant()", pushBack));
    EXPECT_DEATH(empty.allBackToPools(guard), at(110, "dbgInvariant()", "Fifo::allBackToPools(quorvil::sync::Guard&)"));
}

TEST_F(Sync2DeathTest, APoolThatThrowsAtTheEndOfAnAccessEndsTheProcess)
{
    elements[0].setPool(&pool);
    pool.refused = &elements[0];
    EXPECT_EXIT(PoolAccess(guard, &elements[0]), testing::KilledBySignal(SIGABRT), "terminate called.*\n.*refused");
}

} // namespace
