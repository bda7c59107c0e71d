#include "Quorvil/TestThreadState.h"

#include <iostream>

namespace util {

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
    countUp(os);
}

bool TestThreadState::incAndCheckState1(int expected, std::ostream& os)
{
    const Lock lock(mutex);
    const int counted = countUp(os);
    if (counted == expected)
        return true;
    std::cerr << "** Unexpected state " + name + " after incrementation: " + std::to_string(counted) + " instead of " +
                     std::to_string(expected) + "\n";
    return false;
}

/// With the mutex held. The stream may call back and move the state on; the result is the one that was written.
int TestThreadState::countUp(std::ostream& os)
{
    const int counted = ++state;
    os << "Inc " << name << " to " << counted << std::endl;
    return counted;
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
