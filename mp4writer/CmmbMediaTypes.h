// Records that cross from the recording manager into the recorder and the MP4 writer, and
// the result codes of the recording chain.
#ifndef TAVO_MP4WRITER_CMMB_MEDIA_TYPES_H
#define TAVO_MP4WRITER_CMMB_MEDIA_TYPES_H

#include <cstdint>

// Result codes shared by the writer and the recorder (0 = success).
enum {
    ERROR_LIMIT_REACHED = -1000,  // the file size limit is reached; the sample was not stored
    ERROR_WRITE_FAILED = -1001,   // a chunk-offset entry or the final flush could not be written
    ERROR_NO_SAMPLES = -1002,     // a track ended without samples (or video without sync sample)
    ERROR_INVALID = -1015,        // no output or writer, unsupported type, malformed data, misuse
};

enum { CMMB_SAMPLE_STORAGE_SIZE = 65535 };

// One sample. The bytes live in the record's own storage; data points into it. Default
// initialisation leaves the storage untouched (only `length` bytes of it are ever read), so
// that creating a record does not write 64 KiB.
struct _CmmbOutBuffer {
    const char* mime = nullptr;  // "video/avc" or "audio/mp4a-latm" (case-insensitive)
    int64_t timestamp = 0;       // input ticks of 1/22500 s
    uint32_t length = 0;         // bytes at data, at most CMMB_SAMPLE_STORAGE_SIZE
    uint8_t* data = nullptr;
    uint8_t storage[CMMB_SAMPLE_STORAGE_SIZE];
    bool isSyncFrame = false;  // H.264 IDR access unit
};

// Start parameters of the writer.
struct _CmmbMetaData {
    int32_t timeScale;        // movie time scale (mvhd, tkhd)
    bool useNalLengthFour;    // 4-byte (true) or 2-byte H.264 length prefixes
    bool use32BitFileOffset;  // 32-bit mdat header and a file size cap of 2147483647 bytes
};

// Descriptor of one track; created and owned by the recorder, the track keeps a pointer.
struct CmmbMediaSource {
    const char* mime;    // "video/avc", "video/mp4v-es", "video/3gpp" or "audio/mp4a-latm"
    int32_t width;       // video width in pixels (0 for audio)
    int32_t height;      // video height in pixels (0 for audio)
    int32_t sampleRate;  // audio sample rate in Hz; 25 for this system's video (not read)
    int32_t timeScale;   // media time scale of the track (mdhd, stts)

    // The descriptor is its own format record.
    CmmbMediaSource* getformat() { return this; }
};

#endif  // TAVO_MP4WRITER_CMMB_MEDIA_TYPES_H
