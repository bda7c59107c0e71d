#include "Quorvil/QuorvilPos.h"

#include <ostream>

std::ostream& quorvil::operator<<(std::ostream& stream, const Pos& position)
{
    return stream << "(Pos " << position.pos << ')';
}

int quorvil::stream::normalizePos(int pos, int size)
{
    if (size < 1)
        return 0;
    const int rest = pos % size;
    return rest < 0 ? rest + size : rest;
}
