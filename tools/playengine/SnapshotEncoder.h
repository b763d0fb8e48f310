// Turns an H.264 picture (SPS, PPS and the slices of one IDR picture, as Annex B) into a PNG
// image written to a file descriptor. Built on libavcodec and libswscale when they are
// available at build time; otherwise every encode fails with a message saying so.
//
// Threads: the main thread.
#ifndef TAVO_TOOLS_PLAYENGINE_SNAPSHOT_ENCODER_H
#define TAVO_TOOLS_PLAYENGINE_SNAPSHOT_ENCODER_H

#include <cstddef>
#include <string>

class SnapshotEncoder {
public:
    // True when this build can decode and encode pictures.
    static bool available();
    // Decodes `annexB` and writes the picture as PNG at fd's current position. False, with
    // the reason in *error, when nothing was written.
    static bool encode(const unsigned char* annexB, size_t size, int fd, std::string* error);
};

#endif  // TAVO_TOOLS_PLAYENGINE_SNAPSHOT_ENCODER_H
