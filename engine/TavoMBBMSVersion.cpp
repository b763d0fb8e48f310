// The engine library's own version, for applications that check what they loaded.
#include "TavoMBBMSVersion.h"

const char* tavo_mbbms_version(void) {
    return TAVOMBBMS_VERSION_STRING;
}
