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
    ++state;
    os << "Inc " << name << " to " << state << std::endl;
}

bool TestThreadState::incAndCheckState1(int expected, std::ostream& os)
{
    const Lock lock(mutex);
    incState(os);
    if (state == expected)
        return true;
    std::cerr << "** Unexpected state " + name + " after incrementation: " + std::to_string(state) + " instead of " +
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
