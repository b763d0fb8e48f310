// SnapshotEncoder for builds without libavcodec and libswscale.
#include "SnapshotEncoder.h"

bool SnapshotEncoder::available() {
    return false;
}

bool SnapshotEncoder::encode(const unsigned char*, size_t, int, std::string* error) {
    *error =
        "snapshots need libavcodec and libswscale, which were not found when this play engine "
        "was built";
    return false;
}
