// Small file-system helpers of the demo. Each returns false (or -1) on failure and leaves
// errno set.
#ifndef TAVO_DEMO_FILES_H
#define TAVO_DEMO_FILES_H

#include <string>
#include <vector>

namespace demofiles {

// mkdir -p with mode 0777.
bool makeDirectories(const std::string& path);
bool copyFile(const std::string& from, const std::string& to);
bool writeTextFile(const std::string& path, const std::string& text);
bool readFile(const std::string& path, std::string* bytes);
// -1 when the file does not exist.
long long fileSize(const std::string& path);
bool isDirectory(const std::string& path);
bool isExecutable(const std::string& path);
// Names of the entries of a directory, without "." and "..", sorted.
std::vector<std::string> listDirectory(const std::string& path);
}  // namespace demofiles

#endif  // TAVO_DEMO_FILES_H
