// Guard pages and canary bytes around the engine's shared-buffer mappings.
//
// The target is linked with -Wl,--wrap=mmap,--wrap=munmap: every shared mapping of a whole
// shared-buffer region that the engine makes is placed between two inaccessible pages, and
// the bytes after the region's end in its last page (which belong to no field, but which a
// stray write could reach) are filled with a canary. A write before the region or beyond its
// last page faults at once; a write into the tail is found by guardedMappingsIntact().
#ifndef TAVO_FUZZ_GUARDED_MAPPINGS_H
#define TAVO_FUZZ_GUARDED_MAPPINGS_H

#include <string>

// Number of guarded shared-buffer mappings currently in place.
int guardedMappingCount();
// "" when every canary byte is intact, otherwise where one was overwritten.
std::string guardedMappingsIntact();

#endif  // TAVO_FUZZ_GUARDED_MAPPINGS_H
