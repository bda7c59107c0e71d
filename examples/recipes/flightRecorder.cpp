#include "Quorvil/QuorvilLimitedBuffer.h"

#include <cstring>
#include <iostream>

namespace {

struct State
{
    int page;
    int band;
};

void formatState(std::ostream& out, const char* bytes)
{
    State state;
    std::memcpy(&state, bytes, sizeof state); // the bytes may lie anywhere
    out << "  {page " << state.page << ", band " << state.band << "}\n";
}

} // namespace

int main()
{
    util::LimitedBuffer recorder(0x4000, sizeof(State), formatState); // the newest 16 KiB
    util::LimitedBuffer::setBufferingActive(true);                    // before, nothing is recorded or printed
    for (State state{1, 0}; state.band < 3; ++state.band) {
        recorder.addf("band %d begins\n", state.band);
        recorder.addStateValueList(reinterpret_cast<const char*>(&state), sizeof state);
    }
    std::cout << recorder;
}
