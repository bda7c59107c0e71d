// Pool-backed lists, against standard lists.

#include "Quorvil/QuorvilSync2Intern.h"
#include "tests/support/allocationCount.h"
#include "tests/support/assertion.h"

#include <array>
#include <gtest/gtest.h>
#include <iterator>
#include <list>
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

using Model = std::list<Element*>;

/// Empties the list; an element put behind the rest shows that the tail is where it should be.
Model drained(Fifo& list)
{
    Element last;
    list.pushBack(&last);
    Model elements;
    for (Element* element = list.popFront(); element != &last; element = list.popFront()) {
        EXPECT_EQ(element->getNext(), nullptr);
        elements.push_back(element);
    }
    EXPECT_EQ(list.popFront(), nullptr);
    return elements;
}

/// Moves [first, last) of the one list before `place` of the other or of itself, in the lists and in the model.
void moveAndCompare(size_t fromSize, size_t otherSize, size_t first, size_t last, size_t place, bool toItself)
{
    std::array<Element, 8> elements;
    std::array<Fifo, 2> lists;
    std::array<Model, 2> models;
    for (size_t i = 0; i < fromSize + otherSize; ++i) {
        lists[i >= fromSize].pushBack(&elements[i]);
        models[i >= fromSize].push_back(&elements[i]);
    }
    Model& to = models[!toItself];
    const auto at = [](Model& model, size_t index) { return std::next(model.begin(), static_cast<ptrdiff_t>(index)); };
    const auto behind = [&](Model& model, size_t index) { return index == 0 ? nullptr : *at(model, index - 1); };

    const support::AllocationCount count;
    lists[0].moveRange(behind(models[0], first), behind(models[0], last), lists[!toItself], behind(to, place));
    EXPECT_EQ(count.allocations(), 0U);

    to.splice(at(to, toItself && place == first ? last : place), models[0], at(models[0], first), at(models[0], last));
    for (size_t i = 0; i < lists.size(); ++i)
        EXPECT_EQ(drained(lists[i]), models[i]) << fromSize << otherSize << first << last << place << toItself;
}

TEST(Fifo, MovesEveryRunToEveryPlaceOfAnotherListAndOfItself)
{
    for (size_t fromSize = 1; fromSize <= 4; ++fromSize)
        for (size_t otherSize = 0; otherSize <= 3; ++otherSize)
            for (size_t first = 0; first < fromSize; ++first)
                for (size_t last = first + 1; last <= fromSize; ++last)
                    for (size_t place = 0; place <= 4; ++place) {
                        if (place <= otherSize)
                            moveAndCompare(fromSize, otherSize, first, last, place, false);
                        if (place <= first || (place > last && place <= fromSize))
                            moveAndCompare(fromSize, otherSize, first, last, place, true);
                    }
}

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

class Sync2Pools : public testing::Test
{
protected:
    LockGroup group;
    Guard guard{group, "sync2", 1};
    Guard nested{group, "sync2", 2};
    RecordingPool pool;
    RecordingPool other;
    std::array<Element, 4> elements{{Element(&pool), Element(&other), Element(&pool), Element(&pool)}};
    Fifo list;
};

TEST_F(Sync2Pools, GetTheElementsOfAListInOrderButTheOneThatIsRefused)
{
    for (Element& element : elements)
        list.pushBack(&element);
    EXPECT_EQ(elements[0].getNext(), &elements[1]);
    pool.refused = &elements[2];
    EXPECT_THROW(list.allBackToPools(guard), std::runtime_error);
    EXPECT_EQ(pool.home, (RecordingPool::Home{{&guard, &elements[0]}}));
    EXPECT_EQ(other.home, (RecordingPool::Home{{&guard, &elements[1]}}));
    list.allBackToPools(nested);
    EXPECT_EQ(pool.home, (RecordingPool::Home{{&guard, &elements[0]}, {&nested, &elements[3]}}));
    list.allBackToPools(nested);
    EXPECT_EQ(list.popFront(), nullptr);
}

TEST_F(Sync2Pools, GetWhatAnAccessHoldsAtItsEnd)
{
    static_assert(std::is_nothrow_move_constructible_v<PoolAccess> && std::is_nothrow_move_assignable_v<PoolAccess>);
    std::optional<PoolAccess> first(std::in_place, guard, &elements[0]);
    std::optional<PoolAccess> second(std::in_place, nested, &elements[2]);
    std::optional<PoolAccess> moved(std::move(*first));
    EXPECT_EQ(first->get(), nullptr);
    first.reset();
    *second = std::move(*moved);
    EXPECT_EQ(second->get(), &elements[0]);
    EXPECT_EQ(moved->get(), &elements[2]);
    EXPECT_TRUE(pool.home.empty());
    moved.reset();
    EXPECT_EQ(second->release(), &elements[0]);
    second.reset();
    {
        const PoolAccess third(nested, &elements[3]);
    }
    EXPECT_EQ(pool.home, (RecordingPool::Home{{&guard, &elements[2]}, {&nested, &elements[3]}}));
}

using Sync2DeathTest = Sync2Pools;

TEST_F(Sync2DeathTest, MisuseAndAPoolThatThrowsTooLateEndTheProcess)
{
    const auto at = [](const char* line, const char* expression, const char* function) {
        return support::assertion("Quorvil/QuorvilSync2Intern", "void quorvil::sync2::intern::" + std::string(function),
                                  expression, line);
    };
    const char* const pushBack = "Fifo::pushBack(quorvil::sync2::intern::Element*)";
    const char* const moveRange = "Fifo::moveRange(quorvil::sync2::intern::Element*, quorvil::sync2::intern::Element*, "
                                  "quorvil::sync2::intern::Fifo&, quorvil::sync2::intern::Element*)";
    Fifo empty;
    Element homeless;
    list.pushBack(&elements[0]);
    list.pushBack(&elements[1]);
    EXPECT_DEATH(list.pushBack(&elements[0]), at("66", "!e->next", pushBack));
    EXPECT_DEATH(list.moveRange(nullptr, nullptr, empty, nullptr), at("119", "fromUntilThis", moveRange));
    EXPECT_DEATH(empty.moveRange(nullptr, &elements[0], list, nullptr), at("182", "dbgInvariant()", moveRange));
    EXPECT_DEATH(homeless.goBackToPool(guard), at("187", "pool", "Element::goBackToPool(quorvil::sync::Guard&)"));
    pool.refused = &elements[2];
    EXPECT_EXIT(PoolAccess(guard, &elements[2]), testing::KilledBySignal(SIGABRT), "terminate called.*\n.*refused");

    // A run that is moved behind an element of no list leaves a list with a tail and no head.
    list.moveRange(nullptr, &elements[0], empty, &elements[3]);
    EXPECT_FALSE(empty.dbgInvariant());
    EXPECT_DEATH(empty.pushBack(&homeless), at("74", "dbgInvariant()", pushBack));
    EXPECT_DEATH(empty.allBackToPools(guard),
                 at("110", "dbgInvariant()", "Fifo::allBackToPools(quorvil::sync::Guard&)"));
}

TEST(Element, KnowsItsPoolAndTakesNoMemory)
{
    const support::AllocationCount count;
    Element element;
    const bool pooled = element.getPool() != nullptr;
    element.setPool(nullptr);
    EXPECT_EQ(count.allocations(), 0U);
    EXPECT_FALSE(pooled);
}

} // namespace
