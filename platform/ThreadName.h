// Names the calling thread, so that the engine's own threads can be told apart in a debugger,
// in /proc/<pid>/task/*/comm and in the system's thread lists.
//
// Names longer than 15 bytes are cut (the kernel's limit). Failure is ignored: a thread
// without a name works the same.
#ifndef TAVO_PLATFORM_THREAD_NAME_H
#define TAVO_PLATFORM_THREAD_NAME_H

void nameCurrentThread(const char* name);

#endif  // TAVO_PLATFORM_THREAD_NAME_H
