// Where tavo_repair puts the repaired copy: a temporary file beside OUT (created exclusively,
// mode 0644 less the umask), which becomes OUT only once it is complete and on storage.
// OUT itself is never opened, truncated or unlinked: it is either absent and created by the
// final rename, or (when replacing is allowed) a regular file that the rename replaces.
// Symbolic links, devices, directories and FIFOs at OUT are refused. When the copy is not
// published, the destructor removes the temporary file, the one path this class created.
#ifndef TAVO_TOOLS_REPAIR_OUTPUT_FILE_H
#define TAVO_TOOLS_REPAIR_OUTPUT_FILE_H

#include <sys/stat.h>

#include <string>

#include "UniqueHandle.h"

class OutputFile {
public:
    // `input` is the recording's status: OUT may not be the same file.
    OutputFile(std::string target, bool replace, const struct stat& input);
    ~OutputFile();

    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // Checks OUT and creates the temporary file; false with `error` set when refused.
    bool create(std::string* error);
    // The temporary file, open for reading and writing.
    int fd() const { return mFd.get(); }
    // Syncs the temporary file and renames it to OUT; false with `error` set when that
    // failed (the temporary file is then removed). Then syncs the directory: if that fails,
    // warning() says so.
    bool publish(std::string* error);
    const std::string& warning() const { return mWarning; }

private:
    // Whether OUT may be written now: absent, or a regular file that may be replaced.
    bool targetAllowed(std::string* error) const;
    // Renames the temporary file to OUT without ever replacing an existing OUT.
    bool renameWithoutReplacing(std::string* error);

    const std::string mTarget;
    const bool mReplace;
    const dev_t mInputDevice;
    const ino_t mInputInode;
    std::string mDirectory;
    std::string mTemporary;  // empty until created, and again once renamed or removed
    UniqueFd mFd;
    std::string mWarning;
};

#endif  // TAVO_TOOLS_REPAIR_OUTPUT_FILE_H
