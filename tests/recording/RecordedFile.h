// Examination of recorded files with ffprobe and ffmpeg.
#ifndef TAVO_TESTS_RECORDING_RECORDED_FILE_H
#define TAVO_TESTS_RECORDING_RECORDED_FILE_H

#include <string>
#include <vector>

// What ffprobe finds in a recorded file.
struct ProbedPacket {
    int stream;
    long long pts;
    int size;
    bool key;
};

// ffprobe -v error on the file: its messages (empty when it finds nothing wrong) and exit
// status.
std::string probeMessages(const std::string& path, int* status);
// ffmpeg -v error -xerror decoding the whole file: messages and exit status.
std::string decodeMessages(const std::string& path, int* status);
std::vector<ProbedPacket> probePackets(const std::string& path);
// A stream's duration in seconds as ffprobe reports it; negative when unknown.
double probeStreamDuration(const std::string& path, int stream);
// The top-level boxes of an ISO base media file as "type@offset+size", walked by their
// headers only (large sizes included); a header that runs past the end is listed as
// "truncated@offset".
std::vector<std::string> topLevelBoxes(const std::string& path);
// Whether the file holds the four bytes "moov" anywhere.
bool fileHasMoov(const std::string& path);

#endif  // TAVO_TESTS_RECORDING_RECORDED_FILE_H
