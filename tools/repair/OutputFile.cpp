#include "OutputFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <utility>
#include <vector>

namespace {

// renameat2's flag; called through syscall() so that C libraries without the wrapper work.
const unsigned kRenameNoReplace = 1;

std::string describeErrno(const std::string& path, int error) {
    return path + ": " + strerror(error);
}

}  // namespace

OutputFile::OutputFile(std::string target, bool replace, const struct stat& input)
    : mTarget(std::move(target)),
      mReplace(replace),
      mInputDevice(input.st_dev),
      mInputInode(input.st_ino) {
    const size_t slash = mTarget.rfind('/');
    mDirectory = slash == std::string::npos ? "." : slash == 0 ? "/" : mTarget.substr(0, slash);
}

OutputFile::~OutputFile() {
    mFd.reset();
    if (!mTemporary.empty())
        unlink(mTemporary.c_str());
}

bool OutputFile::targetAllowed(std::string* error) const {
    struct stat status;
    if (lstat(mTarget.c_str(), &status) != 0) {
        if (errno == ENOENT)
            return true;
        *error = describeErrno(mTarget, errno);
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        *error = mTarget + ": exists and is not a regular file; it is left alone";
        return false;
    }
    if (status.st_dev == mInputDevice && status.st_ino == mInputInode) {
        *error = mTarget + ": is the recording itself; choose another output";
        return false;
    }
    if (!mReplace) {
        *error = mTarget + ": exists; use --force to replace it";
        return false;
    }
    return true;
}

bool OutputFile::create(std::string* error) {
    const size_t slash = mTarget.rfind('/');
    const std::string name = slash == std::string::npos ? mTarget : mTarget.substr(slash + 1);
    if (name.empty() || name == "." || name == "..") {
        *error = mTarget + ": not a file name";
        return false;
    }
    if (!targetAllowed(error))
        return false;
    std::string pattern = mDirectory + "/." + name + ".tavo-repair-XXXXXX";
    std::vector<char> path(pattern.begin(), pattern.end());
    path.push_back('\0');
    // mkostemp creates with O_EXCL and mode 0600; the copy gets 0644 less the umask, as a
    // file created by open would.
    mFd.reset(mkostemp(path.data(), O_CLOEXEC));
    if (!mFd.valid()) {
        *error = describeErrno(mDirectory, errno);
        return false;
    }
    mTemporary = path.data();
    const mode_t mask = umask(0);
    umask(mask);
    if (fchmod(mFd.get(), 0644 & ~mask) != 0) {
        *error = describeErrno(mTemporary, errno);
        return false;
    }
    return true;
}

bool OutputFile::renameWithoutReplacing(std::string* error) {
    if (syscall(SYS_renameat2, AT_FDCWD, mTemporary.c_str(), AT_FDCWD, mTarget.c_str(),
                kRenameNoReplace) == 0)
        return true;
    if (errno != ENOSYS && errno != EINVAL) {
        *error = errno == EEXIST ? mTarget + ": appeared while the copy was made; it is left alone"
                                 : describeErrno(mTarget, errno);
        return false;
    }
    // The kernel or file system cannot rename without replacing: a hard link is just as
    // exclusive, where the file system has them.
    if (link(mTemporary.c_str(), mTarget.c_str()) == 0) {
        unlink(mTemporary.c_str());
        return true;
    }
    if (errno != EPERM && errno != EOPNOTSUPP && errno != ENOSYS) {
        *error = errno == EEXIST ? mTarget + ": appeared while the copy was made; it is left alone"
                                 : describeErrno(mTarget, errno);
        return false;
    }
    // Neither (FAT, for instance): check once more and rename.
    if (!targetAllowed(error))
        return false;
    if (rename(mTemporary.c_str(), mTarget.c_str()) != 0) {
        *error = describeErrno(mTarget, errno);
        return false;
    }
    return true;
}

bool OutputFile::publish(std::string* error) {
    if (fsync(mFd.get()) != 0) {
        *error = describeErrno(mTemporary, errno);
        return false;
    }
    if (close(mFd.release()) != 0) {
        *error = describeErrno(mTemporary, errno);
        return false;
    }
    if (mReplace) {
        // OUT was absent or a regular file when the repair began; look again just before
        // it is replaced.
        if (!targetAllowed(error))
            return false;
        if (rename(mTemporary.c_str(), mTarget.c_str()) != 0) {
            *error = describeErrno(mTarget, errno);
            return false;
        }
    } else if (!renameWithoutReplacing(error)) {
        return false;
    }
    mTemporary.clear();
    // The new name reaches storage with the directory. The copy is in place either way, so
    // a directory that cannot be synced is only worth a warning.
    UniqueFd directory(open(mDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.valid() || fsync(directory.get()) != 0)
        mWarning = "cannot sync the directory " + describeErrno(mDirectory, errno);
    return true;
}
