// Host stand-in for cutils properties: "<root>/data/property/<name>", first line.
#include <cstdio>
#include <cstring>

#include "AndroidPaths.h"
#include "Properties.h"

int property_get(const char* key, char* value, const char* default_value) {
    char relative[512];
    char path[1024];
    bool found = false;
    if (key != nullptr &&
        snprintf(relative, sizeof(relative), "/data/property/%s", key) <
            static_cast<int>(sizeof(relative)) &&
        resolveAndroidPath(relative, path, sizeof(path)) == 0) {
        FILE* file = fopen(path, "re");
        if (file != nullptr) {
            char line[PROPERTY_VALUE_MAX];
            if (fgets(line, sizeof(line), file) != nullptr) {
                line[strcspn(line, "\n")] = '\0';
                strcpy(value, line);
            } else {
                value[0] = '\0';  // an empty file is an empty value
            }
            found = true;
            fclose(file);
        }
    }
    if (!found) {
        snprintf(value, PROPERTY_VALUE_MAX, "%s", default_value != nullptr ? default_value : "");
    }
    return static_cast<int>(strlen(value));
}
