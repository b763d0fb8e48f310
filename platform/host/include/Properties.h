// Android system properties (cutils). On a host a property is the first line of the file
// "<root>/data/property/<name>", cut to PROPERTY_VALUE_MAX - 1 bytes.
#ifndef TAVO_PLATFORM_PROPERTIES_H
#define TAVO_PLATFORM_PROPERTIES_H

#define PROPERTY_VALUE_MAX 92

// Copies the property's value, or default_value (empty when null) when it is unset, into
// value (PROPERTY_VALUE_MAX bytes). Returns the length of the string copied.
int property_get(const char* key, char* value, const char* default_value);

#endif  // TAVO_PLATFORM_PROPERTIES_H
