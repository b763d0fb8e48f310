#include "RecordedFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "TestRoot.h"

namespace {

std::string runCommand(const std::string& command, int* status) {
    std::string output;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        *status = -1;
        return "popen failed";
    }
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), pipe)) > 0)
        output.append(chunk, n);
    int raw = pclose(pipe);
    *status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return output;
}

std::string quoted(const std::string& path) {
    return "'" + path + "'";
}

}  // namespace

std::string probeMessages(const std::string& path, int* status) {
    return runCommand("ffprobe -v error " + quoted(path), status);
}

std::string decodeMessages(const std::string& path, int* status) {
    return runCommand("ffmpeg -nostdin -v error -xerror -i " + quoted(path) + " -f null -", status);
}

std::vector<ProbedPacket> probePackets(const std::string& path) {
    int status = 0;
    std::string output = runCommand(
        "ffprobe -v error -show_entries packet=stream_index,pts,size,flags -of csv=p=0 " +
            quoted(path),
        &status);
    std::vector<ProbedPacket> packets;
    EXPECT_EQ(0, status) << output;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        ProbedPacket packet;
        char flags[16] = {0};
        if (sscanf(line.c_str(), "%d,%lld,%d,%15s", &packet.stream, &packet.pts, &packet.size,
                   flags) != 4) {
            ADD_FAILURE() << "unexpected ffprobe line: " << line;
            continue;
        }
        packet.key = flags[0] == 'K';
        packets.push_back(packet);
    }
    return packets;
}

double probeStreamDuration(const std::string& path, int stream) {
    int status = 0;
    std::string output =
        runCommand("ffprobe -v error -select_streams " + std::to_string(stream) +
                       " -show_entries stream=duration -of csv=p=0 " + quoted(path),
                   &status);
    double duration = -1;
    if (status != 0 || sscanf(output.c_str(), "%lf", &duration) != 1)
        return -1;
    return duration;
}

bool fileHasMoov(const std::string& path) {
    return readTextFile(path).find("moov") != std::string::npos;
}

std::vector<std::string> topLevelBoxes(const std::string& path) {
    std::vector<std::string> boxes;
    int fd = open(path.c_str(), O_RDONLY);
    struct stat status;
    if (fd < 0 || fstat(fd, &status) != 0) {
        if (fd >= 0)
            close(fd);
        return boxes;
    }
    long long offset = 0;
    while (offset < status.st_size) {
        unsigned char header[16];
        long long size = 0;
        if (pread(fd, header, 8, offset) == 8) {
            size = (static_cast<long long>(header[0]) << 24) | (header[1] << 16) |
                   (header[2] << 8) | header[3];
            if (size == 1 && pread(fd, header + 8, 8, offset + 8) == 8) {
                size = 0;
                for (int i = 8; i < 16; ++i)
                    size = (size << 8) | header[i];
            }
        }
        if (size < 8 || offset + size > status.st_size) {
            boxes.push_back("truncated@" + std::to_string(offset));
            break;
        }
        boxes.push_back(std::string(reinterpret_cast<char*>(header) + 4, 4) + "@" +
                        std::to_string(offset) + "+" + std::to_string(size));
        offset += size;
    }
    close(fd);
    return boxes;
}
