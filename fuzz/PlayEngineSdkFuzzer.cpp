// The play-engine SDK's reader side against a hostile engine. Each input first overwrites
// session 0's shared region from its count words on (counts, payload length, records) and
// announces a frame; the SDK must report clamped counts, hand out only items that lie inside
// the payload and count every other record as bad. The rest of the input is a command stream
// on the connection (96-byte messages, some with one or more descriptors, some cut short,
// hang-ups); the SDK must pass each command on or end the connection, never crash, and leave
// no descriptor open that the caller does not own. After a connection ends it connects again.
//
// Input: the region bytes (up to kRegionBytes), then operations (see the switch below).
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "InputBytes.h"
#include "TavoPlayEngine.h"
#include "UniqueHandle.h"

namespace {

// From nalCount to the end of the AAC records.
const size_t kRegionBytes = offsetof(CmmbSharedBuffer, data) - offsetof(CmmbSharedBuffer, nalCount);

// Entries of /proc/self/fd, less the one that lists them.
int openDescriptors() {
    DIR* directory = opendir("/proc/self/fd");
    if (directory == nullptr)
        return -1;
    int count = 0;
    while (readdir(directory) != nullptr)
        ++count;
    closedir(directory);
    return count - 3;  // ".", ".." and the directory's own descriptor
}

[[noreturn]] void fail(const char* what) {
    fprintf(stderr, "sdk fuzz: %s\n", what);
    abort();
}

// The engine's end: a listening socket, both regions (mapped here too) and the connection.
class HostileEngine {
public:
    HostileEngine() {
        char dir[] = "/tmp/tavo-sdk-fuzz.XXXXXX";
        if (mkdtemp(dir) == nullptr)
            fail("mkdtemp");
        mDir = dir;
        const std::string path = mDir + "/cmmb.socket";
        mListener.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address;
        memset(&address, 0, sizeof(address));
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        if (bind(mListener.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            listen(mListener.get(), 4) != 0)
            fail("listen");
        for (int s = 0; s < 2; ++s) {
            mRegionFds[s].reset(memfd_create("cmmb_shared_memory_fuzz", MFD_CLOEXEC));
            if (ftruncate(mRegionFds[s].get(), CMMB_SHARED_BUFFER_SIZE) != 0)
                fail("ftruncate");
            void* address0 = mmap(nullptr, CMMB_SHARED_BUFFER_SIZE, PROT_READ | PROT_WRITE,
                                  MAP_SHARED, mRegionFds[s].get(), 0);
            if (address0 == MAP_FAILED)
                fail("mmap");
            mRegions[s] = static_cast<CmmbSharedBuffer*>(address0);
            cmmb_sem_init(&mRegions[s]->mutexDataAvailable, 0);
            cmmb_sem_init(&mRegions[s]->mutexDataAccessable, 1);
        }
        mPe = tavo_pe_create(path.c_str(), (mDir + "/pe.socket").c_str());
        if (mPe == nullptr)
            fail("tavo_pe_create");
    }

    // Connects the SDK if it is not connected: accepts and hands out both regions.
    void ensureConnected() {
        if (tavo_pe_is_connected(mPe))
            return;
        mClient.reset();
        std::future<int> connected =
            std::async(std::launch::async, [this] { return tavo_pe_connect(mPe, 5000); });
        // libFuzzer's timer signal (every -timeout/2 s, without SA_RESTART) may land in any
        // of these waits.
        int client;
        do {
            client = accept4(mListener.get(), nullptr, nullptr, SOCK_CLOEXEC);
        } while (client < 0 && errno == EINTR);
        mClient.reset(client);
        for (int s = 0; s < 2; ++s) {
            PlayEngineCommandMessage message;
            memset(&message, 0, sizeof(message));
            strcpy(message.command, PLAYENGINE_CMD_TEXT_SHAREBUFFER);
            message.session = static_cast<char>('0' + s);
            send(reinterpret_cast<const unsigned char*>(&message), sizeof(message), 1,
                 mRegionFds[s].get());
        }
        const int status = connected.get();
        if (status != TAVO_PE_OK) {
            fprintf(stderr, "sdk fuzz: tavo_pe_connect returned %d\n", status);
            fail("no connection with both regions");
        }
        char answers[2 * sizeof(PlayEngineIndicationMessage)];
        size_t received = 0;
        while (received < sizeof(answers)) {
            const ssize_t got =
                recv(mClient.get(), answers + received, sizeof(answers) - received, MSG_WAITALL);
            if (got > 0)
                received += static_cast<size_t>(got);
            else if (got == 0 || errno != EINTR)
                fail("both regions not acknowledged");
        }
    }

    CmmbSharedBuffer* region(int session) const { return mRegions[session]; }
    tavo_pe* pe() const { return mPe; }

    // Sends `size` bytes with `fdCount` copies of `fd` attached.
    void send(const unsigned char* bytes, size_t size, int fdCount, int fd) {
        iovec piece = {const_cast<unsigned char*>(bytes), size};
        msghdr header;
        memset(&header, 0, sizeof(header));
        header.msg_iov = &piece;
        header.msg_iovlen = 1;
        alignas(cmsghdr) unsigned char control[CMSG_SPACE(3 * sizeof(int))];
        if (fdCount > 0) {
            header.msg_control = control;
            header.msg_controllen = CMSG_SPACE(fdCount * sizeof(int));
            cmsghdr* item = CMSG_FIRSTHDR(&header);
            item->cmsg_level = SOL_SOCKET;
            item->cmsg_type = SCM_RIGHTS;
            item->cmsg_len = CMSG_LEN(fdCount * sizeof(int));
            for (int i = 0; i < fdCount; ++i)
                memcpy(CMSG_DATA(item) + i * sizeof(int), &fd, sizeof(int));
        }
        sendmsg(mClient.get(), &header, MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    void hangUp() { mClient.reset(); }

private:
    std::string mDir;
    UniqueFd mListener, mClient;
    UniqueFd mRegionFds[2];
    CmmbSharedBuffer* mRegions[2] = {};
    tavo_pe* mPe = nullptr;
};

HostileEngine& engine() {
    static HostileEngine* instance = new HostileEngine();  // lives for the whole run
    return *instance;
}

// One frame over the fuzzed region: every item inside the payload, every other record bad.
void checkFrame(InputBytes& input) {
    CmmbSharedBuffer* region = engine().region(0);
    // Short inputs leave the rest zero: empty records, which are bad ones.
    input.bytes(reinterpret_cast<uint8_t*>(region) + offsetof(CmmbSharedBuffer, nalCount),
                kRegionBytes);
    cmmb_sem_post(&region->mutexDataAvailable);

    tavo_pe_frame frame;
    if (tavo_pe_wait_frame(engine().pe(), 0, 5000, &frame) != TAVO_PE_OK)
        fail("announced frame not taken");
    if (frame.nal_count > CMMB_NAL_RECORD_SLOTS || frame.aac_count > CMMB_AAC_RECORD_SLOTS ||
        frame.data_length > CMMB_PAYLOAD_SIZE)
        fail("counts not clamped");
    // Items point into the SDK's own mapping of the region.
    const unsigned char* begin = tavo_pe_region(engine().pe(), 0)->data;
    const unsigned char* end = begin + frame.data_length;
    uint32_t bad = 0;
    tavo_pe_item item;
    for (uint32_t i = 0; i < frame.nal_count + frame.aac_count; ++i) {
        const bool nal = i < frame.nal_count;
        const int status = nal ? tavo_pe_frame_nal(&frame, i, &item)
                               : tavo_pe_frame_aac(&frame, i - frame.nal_count, &item);
        if (status == TAVO_PE_BAD_RECORD) {
            ++bad;
            continue;
        }
        if (status != TAVO_PE_OK || item.length == 0 || item.bytes < begin ||
            item.length > static_cast<size_t>(end - item.bytes) ||
            (!nal && item.length < CMMB_ADTS_HEADER_SIZE))
            fail("item outside the payload handed out");
        volatile unsigned char touch = item.bytes[item.length - 1];  // ASan checks the bound
        (void)touch;
    }
    if (bad != tavo_pe_frame_bad_records(&frame))
        fail("bad record count differs");
    if (tavo_pe_release_frame(engine().pe(), &frame) != TAVO_PE_OK || region->nalCount != 0 ||
        region->aacCount != 0)
        fail("frame not released");
    int value = -1;
    cmmb_sem_getvalue(&region->mutexDataAccessable, &value);
    if (value != 1)
        fail("lock not given back");
}

// Takes every command the SDK passes on; false when the connection ended.
bool drainCommands() {
    for (;;) {
        tavo_pe_command command;
        const int status = tavo_pe_next_command(engine().pe(), &command, 5);
        if (status == TAVO_PE_TIMEOUT)
            return true;
        if (status != TAVO_PE_OK)
            return false;
        if (command.kind < TAVO_PE_CMD_CAPTURE ||
            (command.kind > TAVO_PE_CMD_FLUSH && command.kind != TAVO_PE_CMD_UNKNOWN) ||
            command.session < -1 || command.session > 9)
            fail("command out of range");
        const UniqueFd passed(command.fd);
        if (passed.valid() && (fcntl(passed.get(), F_GETFD) & FD_CLOEXEC) == 0)
            fail("descriptor without close-on-exec");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    InputBytes input(data, size, 0);
    engine().ensureConnected();
    const int descriptorsBefore = openDescriptors();
    checkFrame(input);

    UniqueFd passed(open("/dev/null", O_RDONLY | O_CLOEXEC));
    bool connected = true;
    while (connected && !input.empty()) {
        unsigned char message[sizeof(PlayEngineCommandMessage)] = {};
        const uint8_t op = input.u8();
        input.bytes(message, sizeof(message));
        if (op % 8 == 0)  // a known command text, so that every kind is reached
            strcpy(reinterpret_cast<char*>(message), (op / 8) % 2 ? "capture" : "flush");
        switch (op % 5) {
            case 0:
            case 1:
                engine().send(message, sizeof(message), op % 2, passed.get());
                break;
            case 2:  // descriptors beyond the room for one
                engine().send(message, sizeof(message), 2 + op % 2, passed.get());
                break;
            case 3:  // cut short, then the connection ends
                engine().send(message, op % sizeof(message), op % 2, passed.get());
                engine().hangUp();
                break;
            default:
                engine().hangUp();
                break;
        }
        connected = drainCommands();
    }
    if (!connected) {
        tavo_pe_disconnect(engine().pe());  // as a caller does before it connects again
        engine().hangUp();
    }
    passed.reset();
    // Connection sockets are the only descriptors that come and go here.
    if (connected && openDescriptors() != descriptorsBefore)
        fail("descriptor leaked");
    return 0;
}
