// Keeps what a snapshot of a session needs: the latest sequence and picture parameter sets
// and the slices of the latest IDR picture, taken from the session's NAL units as they pass.
//
// An IDR picture is being collected from its first slice (first_mb_in_slice 0) until any
// other NAL unit arrives; it then becomes the complete one a snapshot uses. When no complete
// picture exists yet, the one being collected is used.
//
// Threads: add() on the session reader's thread, copyAnnexB() on the main thread; mLock
// guards everything below it. Storage is allocated once; units too large are skipped.
#ifndef TAVO_TOOLS_PLAYENGINE_LATEST_PICTURE_H
#define TAVO_TOOLS_PLAYENGINE_LATEST_PICTURE_H

#include <cstddef>
#include <memory>
#include <mutex>

class LatestPicture {
public:
    LatestPicture();
    LatestPicture(const LatestPicture&) = delete;
    LatestPicture& operator=(const LatestPicture&) = delete;

    // One NAL unit without its start code.
    void add(const unsigned char* nal, size_t size);

    // Writes SPS, PPS and the IDR picture's slices as an Annex B stream into `out`. Returns
    // the bytes written, or 0 when one of them is missing or `capacity` is too small.
    size_t copyAnnexB(unsigned char* out, size_t capacity) const;

    static const size_t kParameterSetCapacity = 1024;
    static const size_t kPictureCapacity = 512 * 1024;

private:
    // Bytes of a stored unit or picture (Annex B, start codes included).
    struct Store {
        std::unique_ptr<unsigned char[]> bytes;
        size_t capacity = 0;
        size_t size = 0;
        explicit Store(size_t bytesCapacity);
        void assign(const unsigned char* nal, size_t nalSize);
        bool append(const unsigned char* nal, size_t nalSize);
    };

    mutable std::mutex mLock;
    Store mSps;
    Store mPps;
    Store mPictures[2];
    int mComplete;    // index of the complete picture in mPictures, -1 when none
    int mCollecting;  // index of the picture being collected; its size is 0 when none
};

#endif  // TAVO_TOOLS_PLAYENGINE_LATEST_PICTURE_H
