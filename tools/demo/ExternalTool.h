// Runs an optional helper program (ffprobe) and collects what it prints.
#ifndef TAVO_DEMO_EXTERNAL_TOOL_H
#define TAVO_DEMO_EXTERNAL_TOOL_H

#include <string>
#include <vector>

namespace externaltool {

// The full path of a program found in PATH, or "".
std::string find(const std::string& name);

// Runs program with arguments, standard output and error captured into *output. Returns
// its exit status, or -1 when it could not be run or did not exit normally.
int run(const std::string& program, const std::vector<std::string>& arguments, std::string* output);

}  // namespace externaltool

#endif  // TAVO_DEMO_EXTERNAL_TOOL_H
