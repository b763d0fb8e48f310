// Paths as the tools resolve them: relative to the running program's own file or to the
// current directory.
#ifndef TAVO_COMMON_PROCESS_PATHS_H
#define TAVO_COMMON_PROCESS_PATHS_H

#include <string>

// The directory of the running executable; "." when it cannot be read.
std::string executableDirectory();
// `path` if it is absolute, otherwise the current directory joined with it (`path` itself
// when the current directory cannot be read).
std::string absolutePath(const std::string& path);

#endif  // TAVO_COMMON_PROCESS_PATHS_H
