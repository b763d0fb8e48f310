// The Android log interface on the handset: liblog's own header.
#ifndef TAVO_PLATFORM_ANDROID_LOG_H
#define TAVO_PLATFORM_ANDROID_LOG_H

#include <android/log.h>

#endif  // TAVO_PLATFORM_ANDROID_LOG_H
