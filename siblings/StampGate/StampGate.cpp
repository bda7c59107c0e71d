#include "siblings/StampGate/StampGate.h"

int stampGate(int)
{
    return 0;
}
