// Descriptor counts of this process, for leak checks.
#ifndef TAVO_TESTS_SUPPORT_OPEN_DESCRIPTORS_H
#define TAVO_TESTS_SUPPORT_OPEN_DESCRIPTORS_H

// The descriptors this process has open (its /proc/self/fd entries, less the one used to list
// them). With `targetContains`, only those whose target's name contains it (for example
// "cmmb_shared_memory_" for the shared A/V regions).
int openDescriptors(const char* targetContains = nullptr);

#endif  // TAVO_TESTS_SUPPORT_OPEN_DESCRIPTORS_H
