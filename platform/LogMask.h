// Per-category log switches. A message of a category is printed only when the category's
// byte in LogMask::masks is non-zero. readConfigure() loads the switches from the platform
// (TAVO_LOGMASK on a host: a comma-separated list of category names, "all" or "none";
// unset means ERROR, WARNING and MAIN on).
#ifndef TAVO_PLATFORM_LOG_MASK_H
#define TAVO_PLATFORM_LOG_MASK_H

class LogMask {
public:
    enum Category {
        ERROR = 0,
        WARNING = 1,
        MAIN = 2,
        ENGINE = 8,
        RECORD = 10,
        SEMAPHORE = 11,
        STATISTICS = 12,
        SESSION = 13,
        CMD_PATH = 14,
        DATA_MFS = 15,
        DATA_NAL = 16,
        DATA_AAC = 17,
    };
    enum { CATEGORY_COUNT = 32 };

    static unsigned char masks[CATEGORY_COUNT];

    static void readConfigure();
};

#endif  // TAVO_PLATFORM_LOG_MASK_H
