// expect: must be acquired before
// The recorder's lock nests outside the writer's: taking them the other way round is refused.
#include "CmmbMPEG4Writer.h"
#include "CmmbRecorder.h"

void inverted(CmmbMPEG4Writer& writer, CmmbRecorder& recorder) {
    writer.lock();
    recorder.LockRecorder();
    recorder.UnlockRecorder();
    writer.unlock();
}
