#include "Quorvil/GeneralException.h"
#include "Quorvil/QuorvilCapacityControl.h"
#include "tests/support/allocationCount.h"
#include "tests/support/assertion.h"

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <string>
#include <vector>

using namespace quorvil;

namespace {

struct Row
{
    int capacity, size;
    bool increase;
    int amount;
    std::string message; ///< empty where the operation succeeds
    int sizeAfter;
};

std::string increase(const std::string& numbers)
{
    return "Capacity exceeded in CapacityControl buffers: " + numbers;
}

std::string decrease(const std::string& numbers)
{
    return "Illegal argument for CapacityControl::decreaseSize: size = " + numbers + " = sizeDecrement";
}

std::string messageOf(CapacityControl& control, bool increase, int amount)
{
    try {
        increase ? control.increaseSize(amount) : control.decreaseSize(amount);
    } catch (const util::GeneralException& exception) {
        return exception.what();
    }
    return "";
}

TEST(CapacityControl, BooksBetweenNothingAndItsCapacity)
{
    util::GeneralException::defaultSilent = true;
    const std::vector<Row> rows = {
        {10, 0, true, 10, "", 10},
        {10, 10, true, 0, "", 10},
        {10, 10, true, 1, increase("10 + 1 > 10"), 10},
        {10, 9, true, 3, increase("9 + 3 > 10"), 9},
        {10, 10, false, 10, "", 0},
        {10, 0, false, 0, "", 0},
        {10, 0, false, 1, decrease("0 < 1"), 0},
        // Outside its range at the start.
        {10, 12, true, 0, increase("12 + 0 > 10"), 12},
        {10, 12, false, 1, "", 11},
        {-1, 0, true, 0, increase("0 + 0 > -1"), 0},
        {10, -5, true, 15, "", 10},
        {10, -5, false, 0, decrease("-5 < 0"), -5},
        // Sums that an int cannot hold.
        {INT_MAX, INT_MAX - 1, true, 1, "", INT_MAX},
        {INT_MAX, 2, true, INT_MAX, increase("2 + 2147483647 > 2147483647"), 2},
        {INT_MAX, INT_MIN, true, INT_MAX, "", -1},
        {0, INT_MIN, false, INT_MAX, decrease("-2147483648 < 2147483647"), INT_MIN},
        {1234567, 1234567, true, 1000, increase("1234567 + 1000 > 1234567"), 1234567},
    };
    for (const Row& row : rows) {
        const auto control = CapacityControl::create("buffers", row.capacity, row.size);
        const std::string message = messageOf(*control, row.increase, row.amount);
        EXPECT_EQ(row.message, message);
        // What it holds shows in the refusal of one more than it holds.
        if (row.sizeAfter == INT_MAX) {
            control->decreaseSize(INT_MAX);
            EXPECT_EQ(decrease("0 < 1"), messageOf(*control, false, 1));
        } else {
            EXPECT_EQ(decrease(std::to_string(row.sizeAfter) + " < " + std::to_string(INT_MAX)),
                      messageOf(*control, false, INT_MAX));
        }
    }
    util::GeneralException::defaultSilent = false;
}

TEST(CapacityControl, AnnouncesItsRefusals)
{
    const auto control = CapacityControl::create("buffers", 1, 1);
    for (const bool increase : {true, false}) {
        testing::internal::CaptureStdout();
        const std::string message = messageOf(*control, increase, 2);
        EXPECT_EQ("[WARN Quorvil/GeneralException:65]    Constructing GeneralException with msg " + message + "\n",
                  testing::internal::GetCapturedStdout());
    }
}

TEST(CapacityControl, IsMadeInOneAllocationAndBooksInNone)
{
    const support::AllocationCount count;
    const auto control = CapacityControl::create("buffers", 10, 0);
    EXPECT_EQ(1U, count.allocations());
    control->increaseSize(10);
    control->decreaseSize(10);
    EXPECT_EQ(1U, count.allocations());
}

TEST(CapacityControlDeathTest, TakesNoNegativeAmount)
{
    const auto control = CapacityControl::create("buffers", 10, 5);
    EXPECT_DEATH(control->increaseSize(-1),
                 support::assertion("Quorvil/QuorvilCapacityControl",
                                    "virtual void quorvil::CapacityControlImpl::increaseSize(int)",
                                    "sizeIncrement >= 0"));
    EXPECT_DEATH(control->decreaseSize(INT_MIN),
                 support::assertion("Quorvil/QuorvilCapacityControl",
                                    "virtual void quorvil::CapacityControlImpl::decreaseSize(int)",
                                    "sizeDecrement >= 0"));
}

} // namespace
