// Reading the code of an indication message sent by a play engine.
#ifndef TAVO_PLAYENGINE_INDICATION_CODE_H
#define TAVO_PLAYENGINE_INDICATION_CODE_H

#include <cstddef>

// The decimal number at the start of `field` (fieldSize bytes, not necessarily
// zero-terminated): leading white space and a sign are accepted, reading stops at the first
// non-digit, at a zero byte or at the end of the field. A field without digits gives 0;
// values beyond the range of int are clamped.
int parseIndicationCode(const char* field, size_t fieldSize);

#endif  // TAVO_PLAYENGINE_INDICATION_CODE_H
