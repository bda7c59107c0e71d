// portableBitmaps.h: the bitmaps twice, as the library has them and with the steps that every machine can take

#ifndef QUORVIL_TESTS_PORTABLEBITMAPS_H
#define QUORVIL_TESTS_PORTABLEBITMAPS_H

#include "Quorvil/Bitmaps.h"

// The source compiled once more, as `portable::Bitmap`. Nothing that it includes knows the name `bmp`.
#undef QUORVIL_BITMAPS_H
#define QUORVIL_PORTABLE_BLIT
#define bmp portable
#include "Quorvil/Bitmaps.cpp"
#undef bmp

#endif
