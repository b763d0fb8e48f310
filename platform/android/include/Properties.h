// System properties on the handset: libcutils' own properties header.
#ifndef TAVO_PLATFORM_PROPERTIES_H
#define TAVO_PLATFORM_PROPERTIES_H

#include <cutils/properties.h>

#endif  // TAVO_PLATFORM_PROPERTIES_H
