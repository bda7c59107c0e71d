#include "Quorvil/QuorvilTimeCollector.h"

#include <iostream>
#include <utility>

namespace {

/// One page on the real-time thread: no memory from the system, no output.
void print(quorvil::TimeCollectorPool& pool)
{
    auto record = pool.tryGet(16); // room for 16 moments
    if (!record)
        return; // all records are out: this page goes without
    record->add("begun");
    record->add("composed");
    record->add("sent");
    pool.dump(std::move(record)); // printed by the pool's own thread, which then takes the record back
}

} // namespace

int main()
{
    quorvil::TimeCollectorPool pool(std::cout, 9, 4096, 8); // 8 records of 4096 bytes, names filled up to 9
    print(pool);
    pool.close(); // everything is printed
}
