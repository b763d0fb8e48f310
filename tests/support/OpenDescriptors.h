// Descriptor and thread counts of this process, for leak checks.
#ifndef TAVO_TESTS_SUPPORT_OPEN_DESCRIPTORS_H
#define TAVO_TESTS_SUPPORT_OPEN_DESCRIPTORS_H

// The descriptors this process has open (its /proc/self/fd entries, less the one used to list
// them). With `targetContains`, only those whose target's name contains it (for example
// "cmmb_shared_memory_" for the shared A/V regions).
int openDescriptors(const char* targetContains = nullptr);

// The threads of this process (its /proc/self/task entries); with `named`, only those of that
// name (a thread names itself once it runs). -1 when they cannot be listed.
int threadCount(const char* named = nullptr);

// The thread count once it has settled at `expected`, or what it is after a generous bound: a
// joined thread may still be listed by the system for a moment while it exits.
int threadCountSettledAt(int expected, const char* named = nullptr);

#endif  // TAVO_TESTS_SUPPORT_OPEN_DESCRIPTORS_H
