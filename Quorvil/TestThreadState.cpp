#include "Quorvil/TestThreadState.h"

#include <iostream>

namespace util {

namespace {

/// The stream may call back and move the state on: from here on `counted` is what counts.
void tellIncrement(std::ostream& os, const std::string& name, int counted)
{
    os << "Inc " << name << " to " << counted << std::endl;
}

} // namespace

TestThreadState::TestThreadState(const std::string& name_)
    : name(name_)
{
}

TestThreadState::~TestThreadState() = default;

void TestThreadState::reset()
{
    const Lock lock(mutex);
    state = 0;
}

int TestThreadState::inc()
{
    const Lock lock(mutex);
    return ++state;
}

int TestThreadState::get()
{
    const Lock lock(mutex);
    return state;
}

void TestThreadState::incState(std::ostream& os)
{
    const Lock lock(mutex);
    tellIncrement(os, name, ++state);
}

bool TestThreadState::incAndCheckState1(int expected, std::ostream& os)
{
    const Lock lock(mutex);
    const int counted = ++state;
    tellIncrement(os, name, counted);
    if (counted == expected)
        return true;
    std::cerr << "** Unexpected state " + name + " after incrementation: " + std::to_string(counted) + " instead of " +
                     std::to_string(expected) + "\n";
    return false;
}

bool TestThreadState::checkState1(int expected, std::ostream& os)
{
    const Lock lock(mutex);
    if (state == expected) {
        os << "State " << name << " == " << expected << " is true!" << std::endl;
        return true;
    }
    std::cerr << "** Unexpected state " + name + ": " + std::to_string(state) + " instead of " +
                     std::to_string(expected) + "\n";
    return false;
}

TestSleeps::TestSleeps(int number_)
    : number(number_)
{
}

TestSleeps::~TestSleeps() = default;

} // namespace util
