// The engine's side of the command messages, driven from inside the engine (white box):
// commands that no public operation sends, and the identity of the passed buffers.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstdlib>
#include <cstring>

#include "ChildProcess.h"
#include "IndicationCode.h"
#include "PlayEngineTestClient.h"
#include "TavoMBBMSEngineImpl.h"
#include "TestRoot.h"

namespace {

std::string serverPath(const TestRoot& root) {
    return root.resolve("/data/app/cmmb.socket");
}

bool noControlData(const ReceivedCommand& command) {
    return command.fd == -1 && !command.truncated;
}

}  // namespace

TEST(PlayEngineCommands, CommandsWithoutADescriptorCarryTheirStatusByte) {
    EXPECT_IN_CHILD({
        TestRoot root;
        setenv("TAVO_LOGMASK", "all", 1);
        TavoMBBMSEngineImpl* engine = TavoMBBMSEngineImpl::getInstance();
        ASSERT_EQ(0, engine->init(nullptr, nullptr));
        PlayEngineTestClient client(root.path() + "/player.sock");
        ASSERT_TRUE(client.connectTo(serverPath(root)));
        for (int i = 0; i < 2; ++i)
            ASSERT_EQ("sharebuffer", client.receive().text());

        ASSERT_EQ(0, TavoMBBMSEngineImpl::sendPlayEngineCommand(CMD_FLUSH, 7, 1));
        ReceivedCommand flush = client.receive();
        ASSERT_EQ(96, flush.bytes);
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&flush.message);
        EXPECT_EQ(0, memcmp(bytes, "flush\0\0\0", 8));
        for (int i = 5; i < 32; ++i)
            EXPECT_EQ(0, bytes[i]) << i;
        EXPECT_EQ(0, bytes[32]);
        EXPECT_EQ(1, bytes[33]);
        EXPECT_EQ('0', bytes[64]);
        EXPECT_EQ(0, bytes[65]);
        EXPECT_TRUE(noControlData(flush));

        ASSERT_EQ(0, TavoMBBMSEngineImpl::sendPlayEngineCommand(CMD_START_RECORD, 7, 1));
        ASSERT_EQ(0, TavoMBBMSEngineImpl::sendPlayEngineCommand(CMD_STOP_RECORD, 7, 1));
        ReceivedCommand start = client.receive();
        ReceivedCommand stop = client.receive();
        EXPECT_EQ("startrecord", start.text());
        EXPECT_EQ("stoprecord", stop.text());
        EXPECT_EQ('0', start.session());
        EXPECT_TRUE(noControlData(start) && noControlData(stop));

        EXPECT_EQ(-1, TavoMBBMSEngineImpl::sendPlayEngineCommand(static_cast<PlayEngineCommand>(5),
                                                                 7, 0));
        EXPECT_EQ(1, root.countLog("cmd not support yet"));

        // Status of a missing descriptor: low 8 bits of its negation, 1 when those are 0. A
        // text of 32 characters or more fills the field without a terminator; a negative
        // session goes out as "0".
        ASSERT_EQ(0, TavoMBBMSEngineImpl::sendCmd("abcdefghijklmnopqrstuvwxyz0123456789", -2, 9));
        ASSERT_EQ(0, TavoMBBMSEngineImpl::sendCmd("x", -256, -3));
        ReceivedCommand longText = client.receive();
        ReceivedCommand wrapped = client.receive();
        EXPECT_EQ(0, memcmp(longText.message.command, "abcdefghijklmnopqrstuvwxyz012345", 32));
        EXPECT_EQ(2, longText.message.fdStatus);
        EXPECT_EQ('9', longText.session());
        EXPECT_EQ(1, wrapped.message.fdStatus);
        EXPECT_EQ('0', wrapped.session());

        // Once the client is gone, every command fails.
        client.disconnect();
        for (int i = 0; i < 500 && root.countLog("Connection closed by client") == 0; ++i)
            usleep(10000);
        EXPECT_EQ(-1, TavoMBBMSEngineImpl::sendPlayEngineCommand(CMD_FLUSH, -1, 0));
        EXPECT_EQ(0, engine->deinit());
    });
}

TEST(PlayEngineCommands, SharedBufferDescriptorsMapTheEnginesOwnBuffers) {
    EXPECT_IN_CHILD({
        TestRoot root;
        TavoMBBMSEngineImpl* engine = TavoMBBMSEngineImpl::getInstance();
        ASSERT_EQ(0, engine->init(nullptr, nullptr));
        PlayEngineTestClient client(root.path() + "/player.sock");
        ASSERT_TRUE(client.connectTo(serverPath(root)));
        for (int session = 0; session < 2; ++session) {
            ReceivedCommand command = client.receive();
            ASSERT_EQ("sharebuffer", command.text());
            ASSERT_GE(command.fd, 0);
            void* mapped = mmap(nullptr, CMMB_SHARED_BUFFER_SIZE, PROT_READ | PROT_WRITE,
                                MAP_SHARED, command.fd, 0);
            ASSERT_NE(MAP_FAILED, mapped);
            CmmbSharedBuffer* view = static_cast<CmmbSharedBuffer*>(mapped);
            CmmbSharedBuffer* own = engine->sharedBuffer(session);
            ASSERT_NE(nullptr, own);
            own->data[100] = static_cast<unsigned char>(0xA0 + session);
            EXPECT_EQ(0xA0 + session, view->data[100]) << "session " << session;
            view->data[101] = 0x33;
            EXPECT_EQ(0x33, own->data[101]);
            own->data[100] = own->data[101] = 0;
            munmap(mapped, CMMB_SHARED_BUFFER_SIZE);
        }
        EXPECT_EQ(0, engine->deinit());
    });
}

TEST(IndicationCode, ReadsTheLeadingDecimalNumberWithinTheField) {
    struct Case {
        const char* field;
        int code;
    } cases[] = {{"3", 3},
                 {" \t+4", 4},
                 {"-2", -2},
                 {"12abc", 12},
                 {"abc", 0},
                 {"", 0},
                 {"99999999999999999999", 2147483647}};
    for (const Case& c : cases) {
        char field[32] = {};
        memcpy(field, c.field, strlen(c.field));
        EXPECT_EQ(c.code, parseIndicationCode(field, sizeof(field))) << '"' << c.field << '"';
    }
    // The field's end stops the number even without a zero byte.
    char full[40];
    memset(full, '1', sizeof(full));
    EXPECT_EQ(111, parseIndicationCode(full, 3));
}
