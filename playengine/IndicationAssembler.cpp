#include "IndicationAssembler.h"

#include <cstring>

void IndicationAssembler::reset() {
    memset(&mMessage, 0, sizeof(mMessage));
    mFilled = 0;
}

char* IndicationAssembler::freeSpaceStart() {
    if (mFilled == sizeof(mMessage))
        reset();  // the previous message was handed out
    return reinterpret_cast<char*>(&mMessage) + mFilled;
}

bool IndicationAssembler::received(size_t count) {
    if (mFilled == sizeof(mMessage))
        reset();
    if (count > freeSpace())
        count = freeSpace();
    mFilled += count;
    return mFilled == sizeof(mMessage);
}
