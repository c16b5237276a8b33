#include "app/output/SafeOutput.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/commands/Commands.h"
#include "app/pipeline/Pipeline.h"
#include "app/pipeline/Text.h"
#include "host/OS.h"
#include "host/Paths.h"

namespace qvapp {

namespace {

std::string folderOf(const std::string& path) {
    std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

Outcome cannotWrite(const std::string& path, int error) {
    return Outcome(kExitNotWritable, "cannot write " + inQuotes(path) + ": " + reasonOf(error));
}

bool writeAll(int fd, std::string_view bytes, int& error) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            error = n < 0 ? errno : ENOSPC;
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// fsync, where a device or pipe that cannot be flushed is no failure.
bool flush(int fd, int& error) {
    if (::fsync(fd) == 0 || errno == EINVAL || errno == EROFS) return true;
    error = errno;
    return false;
}

// renameat2 with RENAME_NOREPLACE, through the system call so that it needs
// no wrapper: 0, or -1 with errno.
int renameNoReplace(const char* from, const char* to) {
#ifdef SYS_renameat2
    return static_cast<int>(::syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 1u));
#else
    errno = ENOSYS;
    return -1;
#endif
}

// What a file that is not a regular one is, for a sentence.
std::string kindOf(mode_t mode) {
    if (S_ISFIFO(mode)) return "a pipe (FIFO)";
    if (S_ISCHR(mode)) return "a character device";
    if (S_ISBLK(mode)) return "a block device";
    if (S_ISSOCK(mode)) return "a socket";
    return "no regular file";
}

// Whether `path` names, itself or through links, one of a process's own
// streams (/dev/stdout, /dev/fd/N, /proc/self/fd/N): a name whose file
// depends on who opens it, never to be replaced by a file of its own.
bool namesAStream(const std::string& path) {
    std::string p = path;
    for (int hop = 0; hop < 40; ++hop) {
        std::string folder = folderOf(p);
        std::size_t slash = p.find_last_of('/');
        std::string name = slash == std::string::npos ? p : p.substr(slash + 1);
        char real[PATH_MAX];
        if (::realpath(folder.c_str(), real)) {
            std::string_view r(real);
            if (r == "/proc" || r.starts_with("/proc/")) return true;
            if (r == "/dev" &&
                (name == "stdin" || name == "stdout" || name == "stderr" || name == "fd"))
                return true;
        }
        struct stat st;
        if (::lstat(p.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return false;
        char target[PATH_MAX];
        ssize_t n = ::readlink(p.c_str(), target, sizeof target - 1);
        if (n <= 0) return false;
        std::string t(target, static_cast<std::size_t>(n));
        p = t[0] == '/' ? t : folder + "/" + t;
    }
    return false;
}

}  // namespace

bool isStandardOutput(const std::string& path) {
    return path == "-" || path == "/dev/stdout";
}

void InputFiles::add(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) == 0) files_.emplace_back(st.st_dev, st.st_ino);
}

bool InputFiles::contains(const struct stat& st) const {
    return std::find(files_.begin(), files_.end(), std::make_pair(st.st_dev, st.st_ino)) !=
           files_.end();
}

std::string reasonOf(int error) {
    std::string reason = std::strerror(error);
    if (!reason.empty() && reason[0] >= 'A' && reason[0] <= 'Z' &&
        !(reason.size() > 1 && reason[1] >= 'A' && reason[1] <= 'Z'))
        reason[0] = static_cast<char>(reason[0] - 'A' + 'a');
    return reason;
}

Outcome checkFolder(const std::string& folder, const std::string& role) {
    struct stat st;
    if (::stat(folder.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode)) return {};
        return Outcome(kExitNoFolder, "a file is in the way of " + role + " " + inQuotes(folder));
    }
    int error = errno;
    if (error == ENOTDIR) {
        // Some folder on the way is a file: name it.
        for (std::size_t at = folder.find('/', 1); at != std::string::npos;
             at = folder.find('/', at + 1)) {
            std::string prefix = folder.substr(0, at);
            if (::stat(prefix.c_str(), &st) == 0 && !S_ISDIR(st.st_mode))
                return Outcome(kExitNoFolder, "a file, " + inQuotes(prefix) +
                                                  ", is in the way of " + role + " " +
                                                  inQuotes(folder));
        }
    }
    if (error == ENOENT || error == ENOTDIR)
        return Outcome(kExitNoFolder, role + " " + inQuotes(folder) + " does not exist");
    return Outcome(kExitNoFolder,
                   role + " " + inQuotes(folder) + " cannot be used: " + reasonOf(error));
}

SafeOutput::SafeOutput(const InputFiles& inputs, bool overwrite)
    : inputs_(inputs), overwrite_(overwrite) {
    mode_t mask = ::umask(0);
    ::umask(mask);
    fileMode_ = 0666 & ~mask;
}

SafeOutput::~SafeOutput() {
    for (const std::string& folder : folders_) {
        int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0) continue;
        ::fsync(fd);
        ::close(fd);
    }
}

Outcome SafeOutput::check(const std::string& path) const {
    struct stat st;
    if (isStandardOutput(path)) {
        if (::fstat(STDOUT_FILENO, &st) != 0)
            return Outcome(kExitNotWritable,
                           "cannot write " + inQuotes(path) + ": standard output is closed");
        if (S_ISREG(st.st_mode) && inputs_.contains(st))
            return Outcome(kExitNotWritable, "will not write " + inQuotes(path) +
                                                 ": standard output is an input of this run, and "
                                                 "qvxml never writes over its inputs");
        return {};
    }
    // Anything but a regular file is refused before any work: a pipe would
    // hold the run until someone reads it, a device takes the bytes and
    // keeps nothing, and a name of the process's own streams would be
    // replaced by a file.
    if (namesAStream(path))
        return Outcome(kExitNotWritable, "will not write " + inQuotes(path) +
                                             ": it is a stream of the process, not a regular file "
                                             "(- names standard output)");
    std::string folder = folderOf(path);
    if (Outcome r = checkFolder(folder, "the folder"); !r.ok()) return r;
    if (::stat(path.c_str(), &st) != 0) return {};
    if (S_ISDIR(st.st_mode))
        return Outcome(kExitNotWritable,
                       "cannot write " + inQuotes(path) + ": a folder of that name is in the way");
    if (inputs_.contains(st))
        return Outcome(kExitNotWritable, "will not write " + inQuotes(path) +
                                             ": it is an input of this run, and qvxml never "
                                             "writes over its inputs");
    if (!S_ISREG(st.st_mode))
        return Outcome(kExitNotWritable, "will not write " + inQuotes(path) + ": it is " +
                                             kindOf(st.st_mode) + ", not a regular file");
    if (!overwrite_)
        return Outcome(kExitNotWritable,
                       inQuotes(path) + " exists already and is kept (--overwrite replaces it)");
    return {};
}

Outcome SafeOutput::writeToStandardOutput(const std::string& path, std::string_view bytes) {
    // Standard output is written as it stands, wherever it goes: there is
    // nothing to rename. What the command printed before goes first.
    std::fflush(stdout);
    int error = 0;
    bool ok = writeAll(STDOUT_FILENO, bytes, error) && flush(STDOUT_FILENO, error);
    return ok ? Outcome() : cannotWrite(path, error);
}

Outcome SafeOutput::write(const std::string& path, std::string_view bytes, bool* replaced) {
    if (Outcome r = check(path); !r.ok()) return r;
    if (isStandardOutput(path)) return writeToStandardOutput(path, bytes);
    struct stat st;
    bool existed = ::stat(path.c_str(), &st) == 0;

    std::string folder = folderOf(path);
    std::string temporary = folder + "/.qvxml-XXXXXX";
    int fd = ::mkstemp(temporary.data());
    if (fd < 0)
        return Outcome(kExitNotWritable,
                       "cannot write in the folder " + inQuotes(folder) + ": " + reasonOf(errno));
    ::fchmod(fd, existed ? (st.st_mode & 07777) : fileMode_);
    int error = 0;
    bool ok = writeAll(fd, bytes, error) && flush(fd, error);
    struct stat written;
    if (ok &&
        (::fstat(fd, &written) != 0 || static_cast<std::size_t>(written.st_size) != bytes.size())) {
        ok = false;
        error = EIO;
    }
    if (::close(fd) != 0 && ok) {
        ok = false;
        error = errno;
    }
    if (!ok) {
        ::unlink(temporary.c_str());
        return cannotWrite(path, error);
    }
    return publish(temporary, path, existed, replaced);
}

Outcome SafeOutput::commit(const std::string& finished, const std::string& path, bool* replaced) {
    if (Outcome r = check(path); !r.ok()) return r;
    // The plug-in does not look at what its write returned; the host
    // remembers a write that the system refused.
    if (int failure = takeFileWriteFailure(pathFromBytes(finished)))
        return cannotWrite(path, failure);
    int fd = ::open(finished.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return cannotWrite(path, errno);
    struct stat st;
    int error = 0;
    bool ok = ::fstat(fd, &st) == 0 && st.st_size > 0;
    if (!ok) error = EIO;
    ok = ok && flush(fd, error);
    ::close(fd);
    if (!ok) return cannotWrite(path, error);

    if (isStandardOutput(path)) {
        std::string bytes;
        if (!readWhole(finished, bytes)) return cannotWrite(path, errno);
        return writeToStandardOutput(path, bytes);
    }
    struct stat existing;
    bool existed = ::stat(path.c_str(), &existing) == 0;
    return publish(finished, path, existed, replaced);
}

Outcome SafeOutput::publish(const std::string& temporary, const std::string& path, bool existed,
                            bool* replaced) {
    int error = 0;
    bool placed = false;
    if (overwrite_) {
        placed = ::rename(temporary.c_str(), path.c_str()) == 0;
        error = errno;
    } else if (renameNoReplace(temporary.c_str(), path.c_str()) == 0) {
        placed = true;
    } else if (errno == EINVAL || errno == ENOSYS) {
        // A file system without that rename: a hard link does not replace
        // either.
        if (::link(temporary.c_str(), path.c_str()) == 0) {
            ::unlink(temporary.c_str());
            placed = true;
        } else {
            error = errno;
        }
    } else {
        error = errno;
    }
    if (!placed) {
        ::unlink(temporary.c_str());
        if (error == EEXIST)
            return Outcome(
                kExitNotWritable,
                inQuotes(path) + " exists already and is kept (--overwrite replaces it)");
        return cannotWrite(path, error);
    }
    folders_.insert(folderOf(path));
    if (replaced) *replaced = existed;
    return {};
}

StagingFolder::StagingFolder(const std::string& destination) {
    std::string pattern = destination + (destination.ends_with("/") ? "" : "/") + ".qvxml-XXXXXX";
    if (::mkdtemp(pattern.data())) {
        path_ = pattern;
    } else {
        made_ = Outcome(kExitNotWritable, "cannot write in the folder " + inQuotes(destination) +
                                              ": " + reasonOf(errno));
    }
}

StagingFolder::~StagingFolder() {
    if (path_.empty()) return;
    for (const std::string& name : files())
        ::unlink((path_ + "/" + name).c_str());
    ::rmdir(path_.c_str());
}

std::vector<std::string> StagingFolder::files() const {
    std::vector<std::string> names;
    if (path_.empty()) return names;
    DIR* d = ::opendir(path_.c_str());
    if (!d) return names;
    while (dirent* e = ::readdir(d)) {
        std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        struct stat st;
        if (::lstat((path_ + "/" + name).c_str(), &st) == 0 && S_ISREG(st.st_mode))
            names.push_back(name);
    }
    ::closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace qvapp
