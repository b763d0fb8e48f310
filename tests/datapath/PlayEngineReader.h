// A minimal play engine for tests: connects to the engine's command socket the way the real
// play engine does, receives the two shared-buffer descriptors, maps the buffers and reads
// frames following the reader contract of the shared-buffer layout.
#ifndef TAVO_TESTS_DATAPATH_PLAY_ENGINE_READER_H
#define TAVO_TESTS_DATAPATH_PLAY_ENGINE_READER_H

#include <cstdint>
#include <string>
#include <vector>

#include "CmmbSharedBuffer.h"

// One received shared buffer: owns the descriptor and the mapping.
class MappedSharedBuffer {
public:
    MappedSharedBuffer() = default;
    ~MappedSharedBuffer();
    MappedSharedBuffer(const MappedSharedBuffer&) = delete;
    MappedSharedBuffer& operator=(const MappedSharedBuffer&) = delete;

    // Takes ownership of fd and maps CMMB_SHARED_BUFFER_SIZE bytes of it. False on failure.
    bool adopt(int fd);
    int fd() const { return mFd; }
    CmmbSharedBuffer* get() const { return mBuffer; }
    CmmbSharedBuffer* operator->() const { return mBuffer; }
    // The raw bytes, for checks at documented offsets.
    const unsigned char* bytes() const { return reinterpret_cast<const unsigned char*>(mBuffer); }

private:
    int mFd = -1;
    CmmbSharedBuffer* mBuffer = nullptr;
};

// A frame as a reader copied it out of a buffer.
struct ReadFrame {
    struct Nal {
        uint32_t tsBase, tsRelative;
        std::vector<unsigned char> bytes;
    };
    struct Aac {
        uint32_t tsBase, tsRelative;
        std::vector<unsigned char> bytes;  // ADTS header included
    };
    std::vector<Nal> nals;
    std::vector<Aac> aacs;
};

class PlayEngineReader {
public:
    PlayEngineReader() = default;
    ~PlayEngineReader();
    PlayEngineReader(const PlayEngineReader&) = delete;
    PlayEngineReader& operator=(const PlayEngineReader&) = delete;

    // Binds a client socket at clientPath, connects to serverPath and receives the
    // "sharebuffer" descriptors of sessions 0 and 1. Returns "" or what went wrong.
    std::string connect(const std::string& serverPath, const std::string& clientPath);

    MappedSharedBuffer& buffer(int session) { return mBuffers[session]; }

    // Reader contract for one frame of `session`: waits (bounded by timeoutMs) on
    // mutexDataAvailable, then on mutexDataAccessable, copies the records and payload,
    // clears both counts and posts mutexDataAccessable. False when a wait timed out.
    bool readFrame(int session, ReadFrame* frame, int timeoutMs = 20000);

private:
    int mSocket = -1;
    MappedSharedBuffer mBuffers[CMMB_SHARED_BUFFER_COUNT];
};

#endif  // TAVO_TESTS_DATAPATH_PLAY_ENGINE_READER_H
