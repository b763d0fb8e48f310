// The part of bionic's <sys/system_properties.h> that libcutils' properties header needs,
// for builds of the handset backend against a C library other than bionic (the host check
// of the backend). Bionic's own header is used on the handset.
#ifndef TAVO_PLATFORM_COMPAT_SYS_SYSTEM_PROPERTIES_H
#define TAVO_PLATFORM_COMPAT_SYS_SYSTEM_PROPERTIES_H

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

int __system_property_get(const char* name, char* value);

#ifdef __cplusplus
}
#endif

#endif  // TAVO_PLATFORM_COMPAT_SYS_SYSTEM_PROPERTIES_H
