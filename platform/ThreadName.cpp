#include "ThreadName.h"

#include <pthread.h>

#include <cstring>

void nameCurrentThread(const char* name) {
    char shortName[16];  // 15 bytes and the terminating zero
    strncpy(shortName, name, sizeof(shortName) - 1);
    shortName[sizeof(shortName) - 1] = '\0';
    pthread_setname_np(pthread_self(), shortName);
}
