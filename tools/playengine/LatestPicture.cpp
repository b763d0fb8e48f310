#include "LatestPicture.h"

#include <cstring>

namespace {

const unsigned char kStartCode[4] = {0, 0, 0, 1};
const int kNalIdrSlice = 5;
const int kNalSps = 7;
const int kNalPps = 8;

// first_mb_in_slice is the slice header's first field (Exp-Golomb): 0 is the single bit 1.
bool startsPicture(const unsigned char* nal, size_t size) {
    return size > 1 && (nal[1] & 0x80) != 0;
}

}  // namespace

LatestPicture::Store::Store(size_t bytesCapacity)
    : bytes(new unsigned char[bytesCapacity]), capacity(bytesCapacity) {}

void LatestPicture::Store::assign(const unsigned char* nal, size_t nalSize) {
    size = 0;
    append(nal, nalSize);
}

bool LatestPicture::Store::append(const unsigned char* nal, size_t nalSize) {
    if (size + sizeof(kStartCode) + nalSize > capacity)
        return false;
    memcpy(bytes.get() + size, kStartCode, sizeof(kStartCode));
    memcpy(bytes.get() + size + sizeof(kStartCode), nal, nalSize);
    size += sizeof(kStartCode) + nalSize;
    return true;
}

LatestPicture::LatestPicture()
    : mSps(kParameterSetCapacity),
      mPps(kParameterSetCapacity),
      mPictures{Store(kPictureCapacity), Store(kPictureCapacity)},
      mComplete(-1),
      mCollecting(0) {}

void LatestPicture::add(const unsigned char* nal, size_t size) {
    if (size == 0)
        return;
    int type = nal[0] & 0x1F;
    std::lock_guard<std::mutex> guard(mLock);
    Store& collecting = mPictures[mCollecting];
    if (type == kNalIdrSlice && !startsPicture(nal, size) && collecting.size > 0) {
        if (!collecting.append(nal, size))
            collecting.size = 0;  // too large: drop the picture
        return;
    }
    if (collecting.size > 0) {
        mComplete = mCollecting;
        mCollecting = 1 - mCollecting;
        mPictures[mCollecting].size = 0;
    }
    if (type == kNalIdrSlice && startsPicture(nal, size)) {
        mPictures[mCollecting].assign(nal, size);
    } else if (type == kNalSps && size + sizeof(kStartCode) <= mSps.capacity) {
        mSps.assign(nal, size);
    } else if (type == kNalPps && size + sizeof(kStartCode) <= mPps.capacity) {
        mPps.assign(nal, size);
    }
}

size_t LatestPicture::copyAnnexB(unsigned char* out, size_t capacity) const {
    std::lock_guard<std::mutex> guard(mLock);
    const Store* picture = mComplete >= 0 ? &mPictures[mComplete] : &mPictures[mCollecting];
    if (mSps.size == 0 || mPps.size == 0 || picture->size == 0)
        return 0;
    size_t total = mSps.size + mPps.size + picture->size;
    if (total > capacity)
        return 0;
    memcpy(out, mSps.bytes.get(), mSps.size);
    memcpy(out + mSps.size, mPps.bytes.get(), mPps.size);
    memcpy(out + mSps.size + mPps.size, picture->bytes.get(), picture->size);
    return total;
}
