// Host stand-in for the log-switch library: switches come from TAVO_LOGMASK.
#include <cstdlib>
#include <cstring>

#include "LogMask.h"

unsigned char LogMask::masks[LogMask::CATEGORY_COUNT];

namespace {

struct CategoryName {
    const char* name;
    LogMask::Category category;
};

const CategoryName kCategories[] = {
    {"ERROR", LogMask::ERROR},
    {"WARNING", LogMask::WARNING},
    {"MAIN", LogMask::MAIN},
    {"ENGINE", LogMask::ENGINE},
    {"RECORD", LogMask::RECORD},
    {"SEMAPHORE", LogMask::SEMAPHORE},
    {"STATISTICS", LogMask::STATISTICS},
    {"SESSION", LogMask::SESSION},
    {"CMD_PATH", LogMask::CMD_PATH},
    {"DATA_MFS", LogMask::DATA_MFS},
    {"DATA_NAL", LogMask::DATA_NAL},
    {"DATA_AAC", LogMask::DATA_AAC},
};

void setAll(unsigned char value) {
    for (const CategoryName& c : kCategories)
        LogMask::masks[c.category] = value;
}

void enableByName(const char* name, size_t length) {
    for (const CategoryName& c : kCategories) {
        if (strlen(c.name) == length && strncmp(c.name, name, length) == 0) {
            LogMask::masks[c.category] = 1;
            return;
        }
    }
    // Unknown names are ignored.
}

}  // namespace

void LogMask::readConfigure() {
    memset(masks, 0, sizeof(masks));
    const char* config = getenv("TAVO_LOGMASK");
    if (config == nullptr) {
        masks[ERROR] = masks[WARNING] = masks[MAIN] = 1;
        return;
    }
    if (strcmp(config, "all") == 0) {
        setAll(1);
        return;
    }
    if (strcmp(config, "none") == 0)
        return;
    const char* p = config;
    while (*p != '\0') {
        const char* end = strchr(p, ',');
        size_t length = end != nullptr ? static_cast<size_t>(end - p) : strlen(p);
        enableByName(p, length);
        if (end == nullptr)
            break;
        p = end + 1;
    }
}
