// Runs a test body in a forked child process. The engine is one object per process, so a
// test that needs a fresh engine runs its body here; gtest failures in the child are
// printed by the child and turn into a failure of the parent's test.
//
//   TEST(Lifecycle, Something) {
//       EXPECT_IN_CHILD({
//           TestRoot root;
//           TavoMBBMSEngine* engine = TavoMBBMSEngine::getInstance();
//           EXPECT_EQ(0, engine->init(nullptr, nullptr));
//       });
//   }
#ifndef TAVO_TESTS_SUPPORT_CHILD_PROCESS_H
#define TAVO_TESTS_SUPPORT_CHILD_PROCESS_H

#include <functional>
#include <string>

// Runs body in a child and waits for it. Returns "" when the child passed, otherwise a
// description of how it failed (gtest failures, exit status or signal).
std::string runInChild(const std::function<void()>& body);

// Runs a shell command with its standard output and error in *output; its exit status, or -1
// when it could not be run or did not exit.
int runCommand(const std::string& command, std::string* output);

#define EXPECT_IN_CHILD(...)                                      \
    do {                                                          \
        std::string childFailure = runInChild([&]() __VA_ARGS__); \
        EXPECT_EQ("", childFailure);                              \
    } while (0)

#endif  // TAVO_TESTS_SUPPORT_CHILD_PROCESS_H
