// Recording repair on hostile input, through the exported function and the tavo_repair tool
// run as a child process: counts and sizes the file cannot back, inputs and outputs that are
// not regular files, a recording that shrinks while it is read, memory on crafted inputs that
// claim far more than they hold, and the tool's handling of OUT (never truncated, followed or
// removed unless it made it).
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "CraftedRecording.h"
#include "TavoRecordingRepair.h"
#include "TestRoot.h"
#include "UniqueHandle.h"

namespace {

using Sample = CraftedRecording::Sample;

// Two tracks with a few seconds of plausible samples: 25 pictures (the first of each second
// a key frame) and 23 audio frames a second, one chunk per track and second.
CraftedRecording plausibleRecording(int seconds) {
    CraftedRecording recording;
    recording.config({REPAIR_TRACK_AVC, REPAIR_TRACK_AAC});
    for (int second = 0; second < seconds; ++second) {
        std::vector<Sample> pictures, frames;
        for (int n = 0; n < 25; ++n)
            pictures.push_back({1500u + n, n == 0, n == 24 ? 0u : 900u});
        for (int n = 0; n < 23; ++n)
            frames.push_back({200, true, n == 22 ? 0u : 960u});
        recording.chunk(0, REPAIR_TRACK_AVC, second * 22500ull, pictures);
        recording.chunk(1, REPAIR_TRACK_AAC, second * 22500ull, frames);
    }
    return recording;
}

// The shape that made the repair use thirty times its input: after one key frame, audio
// chunks of one-byte samples that never advance in time, each costing three bytes of file.
CraftedRecording tinySamplesRecording(size_t targetSize) {
    CraftedRecording recording;
    recording.config({REPAIR_TRACK_AVC, REPAIR_TRACK_AAC});
    recording.chunk(0, REPAIR_TRACK_AVC, 0, {{40, true, 0}});
    const std::vector<Sample> frames(4096, Sample{1, true, 0});
    while (recording.size() < targetSize)
        recording.chunk(1, REPAIR_TRACK_AAC, 0, frames);
    return recording;
}

int repairFds(int in, int out, std::string* message) {
    char text[256] = "";
    const int result = tavo_repair_recording(in, out, text, sizeof(text));
    *message = text;
    return result;
}

// Repairs the file at `in` into a new file at `out` with the library.
int repairPaths(const std::string& in, const std::string& out, std::string* message) {
    const UniqueFd inFd(open(in.c_str(), O_RDONLY | O_CLOEXEC));
    const UniqueFd outFd(open(out.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    return repairFds(inFd.get(), outFd.get(), message);
}

// One run of the tool as a child process: exit status (-1 when it did not exit) and signal.
struct ToolRun {
    int status = -1, signal = 0;
    std::string out, err;
    long maxRssKb = 0;
};

class ToolRunner {
public:
    explicit ToolRunner(const std::string& directory) : mDirectory(directory) {}

    // Under AddressSanitizer, freed blocks stay resident in its quarantine; measuring peak
    // memory, the tool runs with a small one so that the figure is the repair's own.
    void measureMemory() { mMeasuresMemory = true; }

    // Starts the tool (behind an emulator if any) with `arguments` under `mask`; the shell
    // execs it, so that the child is the tool itself.
    pid_t start(const std::vector<std::string>& arguments, mode_t mask = 022) {
        std::string command = "exec ";
        if (mMeasuresMemory)
            command += "env ASAN_OPTIONS=\"$ASAN_OPTIONS:quarantine_size_mb=1\" ";
        command += TAVO_REPAIR_TOOL;
        for (const std::string& argument : arguments)
            command += " '" + argument + "'";
        command += " >'" + streamPath("out") + "' 2>'" + streamPath("err") + "'";
        const pid_t child = fork();
        if (child == 0) {
            umask(mask);
            execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        return child;
    }

    ToolRun wait(pid_t child) {
        ToolRun run;
        int status = 0;
        struct rusage usage = {};
        if (wait4(child, &status, 0, &usage) != child)
            return run;
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        run.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
        run.maxRssKb = usage.ru_maxrss;
        run.out = readTextFile(streamPath("out"));
        run.err = readTextFile(streamPath("err"));
        return run;
    }

    ToolRun run(const std::vector<std::string>& arguments, mode_t mask = 022) {
        return wait(start(arguments, mask));
    }

private:
    // Beside the test directory, not in it, so that they never show up in its listing.
    std::string streamPath(const std::string& stream) const { return mDirectory + "." + stream; }

    std::string mDirectory;
    bool mMeasuresMemory = false;
};

// The names in a directory (readdir64: directory offsets need not fit 32 bits).
std::set<std::string> listDirectory(const std::string& path) {
    std::set<std::string> names;
    DIR* directory = opendir(path.c_str());
    if (directory == nullptr) {
        ADD_FAILURE() << path << ": " << strerror(errno);
        return names;
    }
    while (const dirent64* entry = readdir64(directory)) {
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
            names.insert(entry->d_name);
    }
    closedir(directory);
    return names;
}

// Waits (up to a generous bound) until process `pid` has the file at `path` open.
void waitUntilOpen(pid_t pid, const std::string& path) {
    char* real = realpath(path.c_str(), nullptr);
    const std::string target = real != nullptr ? real : path;
    free(real);
    for (int wait = 0; wait < 20000; ++wait) {
        for (int fd = 0; fd < 256; ++fd) {
            char link[4096];
            const std::string name = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd);
            const ssize_t size = readlink(name.c_str(), link, sizeof(link));
            if (size > 0 && target == std::string(link, static_cast<size_t>(size)))
                return;
        }
        usleep(200);
    }
}

class RepairHostileInput : public ::testing::Test {
protected:
    std::string path(const std::string& name) const { return mRoot.path() + "/work/" + name; }
    void SetUp() override { ASSERT_EQ(0, mkdir((mRoot.path() + "/work").c_str(), 0755)); }

    TestRoot mRoot;
    ToolRunner mTool{mRoot.path() + "/work"};
};

// (A walk over a count the file cannot back, or over samples of size 0, is the record
// walker's own test; a record cut short or longer than the file, the record format's.)
TEST_F(RepairHostileInput, CountsAndSizesTheFileCannotBackAndFilesThatAreNotRegularAreRefused) {
    const std::vector<uint8_t> both = {REPAIR_TRACK_AVC, REPAIR_TRACK_AAC};
    const std::vector<Sample> three(3, Sample{20, true, 960});
    const struct {
        const char* name;
        CraftedRecording recording;
    } cases[] = {
        {"a count of 2^63",
         CraftedRecording().config(both).chunk(1, REPAIR_TRACK_AAC, 0, three, INT64_MAX)},
        {"samples whose bytes are not in the file",
         CraftedRecording().config(both).chunk(
             1, REPAIR_TRACK_AAC, 0, std::vector<Sample>(5000, Sample{60000, true, 1}), -1, false)},
    };
    for (const auto& test : cases) {
        const std::vector<uint8_t> bytes = test.recording.bytes();
        const std::string in = path("case.3gp");
        writeTextFile(in, std::string(bytes.begin(), bytes.end()));
        std::string message;
        EXPECT_EQ(TAVO_REPAIR_NOTHING_RECOVERABLE, repairPaths(in, path("case.out"), &message))
            << test.name;
        EXPECT_FALSE(message.empty()) << test.name;
        EXPECT_EQ(std::string(bytes.begin(), bytes.end()), readTextFile(in)) << test.name;
    }

    // A later configuration with more tracks than the first ends the walk: the chunks
    // before it are repaired, and the chunk of the third track is never looked up.
    CraftedRecording grown = plausibleRecording(3);
    grown.config({REPAIR_TRACK_AVC, REPAIR_TRACK_AAC, REPAIR_TRACK_AAC})
        .chunk(2, REPAIR_TRACK_AAC, 70000, three);
    ASSERT_TRUE(grown.writeTo(path("grown.3gp")));
    std::string message;
    EXPECT_EQ(TAVO_REPAIR_OK, repairPaths(path("grown.3gp"), path("grown.out"), &message))
        << message;
    EXPECT_NE(std::string::npos, message.find("144 samples")) << message;

    // Inputs and outputs that are not regular files.
    ASSERT_TRUE(plausibleRecording(2).writeTo(path("good.3gp")));
    std::vector<UniqueFd> opened;  // every descriptor below, closed when the test ends
    const auto own = [&opened](int fd) {
        opened.emplace_back(fd);
        return fd;
    };
    const int good = own(open(path("good.3gp").c_str(), O_RDONLY));
    const int empty = own(open(path("empty.out").c_str(), O_RDWR | O_CREAT, 0644));
    ASSERT_EQ(0, mkfifo(path("fifo").c_str(), 0644));
    // A FIFO without a writer: a blocking read would wait for ever.
    const int fifo = own(open(path("fifo").c_str(), O_RDONLY | O_NONBLOCK));
    const int zero = own(open("/dev/zero", O_RDONLY));
    const int directory = own(open(path("").c_str(), O_RDONLY | O_DIRECTORY));
    int sockets[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sockets));
    own(sockets[0]);
    own(sockets[1]);
    // Over the limit: a sparse file one byte larger than the largest recording.
    const int huge = own(open(path("huge.3gp").c_str(), O_RDWR | O_CREAT, 0644));
    ASSERT_EQ(0, ftruncate64(huge, static_cast<off64_t>(TAVO_REPAIR_MAX_INPUT_SIZE + 1)));
    for (int in : {fifo, zero, directory, sockets[0], huge, -1}) {
        EXPECT_EQ(TAVO_REPAIR_INPUT_FAILED, repairFds(in, empty, &message)) << in;
        EXPECT_FALSE(message.empty());
    }
    EXPECT_NE(std::string::npos, message.find("cannot read")) << message;

    const int null = own(open("/dev/null", O_RDWR));
    const int full = own(open(path("full.out").c_str(), O_RDWR | O_CREAT, 0644));
    ASSERT_EQ(1, write(full, "x", 1));
    for (int out : {null, full, sockets[1], -1}) {
        EXPECT_EQ(TAVO_REPAIR_OUTPUT_FAILED, repairFds(good, out, &message)) << out;
        EXPECT_NE(std::string::npos, message.find("not an empty regular file")) << message;
    }
    EXPECT_EQ(TAVO_REPAIR_OK, repairFds(good, empty, &message)) << message;
}

// Virtual memory of this process in bytes, from /proc/self/status.
uint64_t virtualMemorySize() {
    std::istringstream status(readTextFile("/proc/self/status"));
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 7, "VmSize:") == 0)
            return std::stoull(line.substr(7)) * 1024;
    }
    return 0;
}

TEST_F(RepairHostileInput, RunningOutOfMemoryIsAResultNotAnException) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers reserve more address space than the limit below allows";
#endif
    if (TAVO_EMULATED)
        GTEST_SKIP() << "an emulator maps the program's memory itself, within its own limits";
    // A record with a 16 MiB body, which the repair reads whole, in a process that cannot
    // map that much more.
    std::vector<uint8_t> body(REPAIR_RECORD_MAX_BODY, 0);
    ASSERT_TRUE(CraftedRecording().record(REPAIR_RECORD_CONFIG, body).writeTo(path("big.3gp")));
    body = std::vector<uint8_t>();
    EXPECT_IN_CHILD({
        const int in = open(path("big.3gp").c_str(), O_RDONLY);
        const int out = open(path("big.out").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        const rlim_t limit = static_cast<rlim_t>(virtualMemorySize() + (8 << 20));
        const struct rlimit addressSpace = {limit, limit};
        ASSERT_EQ(0, setrlimit(RLIMIT_AS, &addressSpace));
        std::string message;
        EXPECT_EQ(TAVO_REPAIR_INTERNAL_ERROR, repairFds(in, out, &message));
        EXPECT_NE(std::string::npos, message.find("out of memory")) << message;
    });
}

TEST_F(RepairHostileInput, TheToolFailsCleanlyWhenAnotherProcessShrinksItsInput) {
    const CraftedRecording recording = plausibleRecording(600);
    const std::string in = path("shrinking.3gp");
    int shrank = 0;
    for (int attempt = 0; attempt < 10 && shrank < 2; ++attempt) {
        ASSERT_TRUE(recording.writeTo(in));
        const pid_t tool = mTool.start({in, path("copy.3gp")});
        waitUntilOpen(tool, in);
        usleep(static_cast<useconds_t>(attempt * 1000));
        ASSERT_EQ(0, truncate(in.c_str(), 100000));
        const ToolRun run = mTool.wait(tool);
        EXPECT_EQ(0, run.signal) << run.err;
        if (run.status == 0) {  // read before the cut, or only after it
            ASSERT_EQ(0, unlink(path("copy.3gp").c_str()));
            continue;
        }
        EXPECT_EQ(1, run.status) << run.err;
        // Neither the copy nor its temporary file.
        EXPECT_EQ(std::set<std::string>{"shrinking.3gp"}, listDirectory(path("")));
        if (run.err.find("shrank") != std::string::npos)
            ++shrank;
    }
    EXPECT_GT(shrank, 0) << "no attempt cut the file while the tool read it";
}

// Peak resident memory of the tool on crafted inputs, against the same on a small file.
TEST_F(RepairHostileInput, MemoryStaysWithinASmallMultipleOfTheInput) {
    mTool.measureMemory();
    // The inputs are made in children, so that this process stays small: a child forked from
    // it starts with its resident memory, and the tool's peak would include that.
    EXPECT_IN_CHILD({ ASSERT_TRUE(plausibleRecording(2).writeTo(path("small.3gp"))); });
    const ToolRun baseline = mTool.run({path("small.3gp"), path("small.out")});
    ASSERT_EQ(0, baseline.status) << baseline.err;

    const size_t inputSize = 8 << 20;
    EXPECT_IN_CHILD({ ASSERT_TRUE(tinySamplesRecording(inputSize).writeTo(path("tiny.3gp"))); });
    const ToolRun run = mTool.run({path("tiny.3gp"), path("tiny.out")});
    EXPECT_EQ(0, run.status) << run.err;
    const double growth = static_cast<double>(run.maxRssKb - baseline.maxRssKb) * 1024.0 /
                          static_cast<double>(fileSize(path("tiny.3gp")));
    std::cout << fileSize(path("tiny.3gp")) << " bytes, peak RSS " << run.maxRssKb
              << " KiB (baseline " << baseline.maxRssKb << " KiB): " << growth
              << " times the input\n";
    EXPECT_LT(growth, 6.0);
}

// Runs the tool refuses end with status 1 and the reason on standard error, and leave the
// directory as it was: no output, no temporary file, no existing file truncated, followed or
// replaced, not even with --force.
TEST_F(RepairHostileInput, RefusedRunsLeaveEveryFileAsItWas) {
    const std::string in = path("in.3gp");
    ASSERT_TRUE(plausibleRecording(2).writeTo(in));
    ASSERT_TRUE(CraftedRecording()
                    .config({REPAIR_TRACK_AVC, REPAIR_TRACK_AAC})
                    .writeTo(path("header-only.3gp")));
    writeTextFile(path("notes.txt"), "not a recording\n");
    writeTextFile(path("out.3gp"), "keep me\n");
    writeTextFile(path("victim"), "precious\n");
    ASSERT_EQ(0, symlink(path("victim").c_str(), path("link").c_str()));
    ASSERT_EQ(0, symlink(path("nowhere").c_str(), path("dangling").c_str()));
    ASSERT_EQ(0, mknod(path("null").c_str(), S_IFCHR | 0666, makedev(1, 3)));
    ASSERT_EQ(0, mkfifo(path("fifo").c_str(), 0644));
    ASSERT_EQ(0, mkdir(path("directory").c_str(), 0755));
    const std::set<std::string> before = listDirectory(path(""));
    const std::string input = readTextFile(in);

    std::vector<std::pair<std::vector<std::string>, std::string>> refusals = {
        {{in, path("out.3gp")}, "use --force"},
        {{"-f", in, in}, ""},  // never the input itself
        {{path("notes.txt"), path("new.3gp")}, "not a recording"},
        {{path("header-only.3gp"), path("new.3gp")}, "no complete chunk"},
        {{path("fifo"), path("new.3gp")}, "not a regular file"},  // at once, without waiting
        {{path("missing.3gp"), path("new.3gp")}, "No such file"}};
    const std::pair<const char*, mode_t> targets[] = {{"link", S_IFLNK},
                                                      {"dangling", S_IFLNK},
                                                      {"null", S_IFCHR},
                                                      {"fifo", S_IFIFO},
                                                      {"directory", S_IFDIR}};
    for (const auto& target : targets) {
        refusals.push_back({{in, path(target.first)}, "not a regular file"});
        refusals.push_back({{"--force", in, path(target.first)}, "not a regular file"});
    }
    for (const auto& refusal : refusals) {
        const ToolRun run = mTool.run(refusal.first);
        EXPECT_EQ(1, run.status) << refusal.first.back();
        EXPECT_NE(std::string::npos, run.err.find(refusal.second)) << run.err;
        EXPECT_EQ(before, listDirectory(path(""))) << refusal.first.back();
    }
    for (const auto& target : targets) {
        struct stat status;
        ASSERT_EQ(0, lstat(path(target.first).c_str(), &status)) << target.first;
        EXPECT_EQ(target.second, status.st_mode & S_IFMT) << target.first;
    }
    EXPECT_EQ("precious\n", readTextFile(path("victim")));
    EXPECT_EQ("keep me\n", readTextFile(path("out.3gp")));
    EXPECT_EQ(input, readTextFile(in));

    // Into a directory that cannot be written: the temporary file cannot be made.
    ToolRun run = mTool.run({in, "/proc/out.3gp"});
    EXPECT_EQ(1, run.status);
    EXPECT_FALSE(run.err.empty());

    // Forced, an existing regular file is replaced; the umask decides the mode.
    run = mTool.run({"--force", in, path("out.3gp")}, 027);
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_NE(std::string::npos, run.out.find("repaired: 96 samples")) << run.out;
    struct stat status;
    ASSERT_EQ(0, stat(path("out.3gp").c_str(), &status));
    EXPECT_EQ(0640u, status.st_mode & 0777);
}

// (--version is checked for every installed tool by the package check.)
TEST_F(RepairHostileInput, TheToolAnswersHelpAndBadUsage) {
    ToolRun run = mTool.run({"--help"});
    EXPECT_EQ(0, run.status);
    EXPECT_EQ(0u, run.out.find("usage: tavo_repair [--force] IN OUT\n")) << run.out;
    EXPECT_EQ("", run.err);
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {}, {"one"}, {"a", "b", "c"}, {"--bogus", "a", "b"}}) {
        run = mTool.run(arguments);
        EXPECT_EQ(2, run.status) << arguments.size();
        EXPECT_NE(std::string::npos, run.err.find("usage:")) << run.err;
        EXPECT_EQ("", run.out);
    }
    // "--" ends the options: a file named like one can be repaired.
    ASSERT_TRUE(plausibleRecording(2).writeTo(path("-f")));
    run = mTool.run({"--", path("-f"), path("copy.3gp")});
    EXPECT_EQ(0, run.status) << run.err;
}

}  // namespace
