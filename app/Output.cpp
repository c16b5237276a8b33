#include "app/Output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace qvapp {

namespace {

std::string folderOf(const std::string& path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

bool writeWholeFile(const std::string& path, const std::string& content, std::string& why) {
    struct stat st;
    if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        why = "cannot write \"" + path + "\": it is a folder";
        return false;
    }
    std::string staged = folderOf(path) + "/.qvxml-XXXXXX";
    int fd = ::mkstemp(staged.data());
    if (fd < 0) {
        why = "cannot write \"" + path + "\": " + std::strerror(errno);
        return false;
    }
    const char* at = content.data();
    size_t left = content.size();
    bool ok = true;
    while (ok && left > 0) {
        ssize_t n = ::write(fd, at, left);
        if (n < 0 && errno == EINTR) continue;
        ok = n > 0;
        if (ok) {
            at += n;
            left -= static_cast<size_t>(n);
        }
    }
    int error = errno;
    // Files are made readable as any other the user writes.
    mode_t mask = ::umask(0);
    ::umask(mask);
    ok = ok && ::fchmod(fd, 0666 & ~mask) == 0 && ::fsync(fd) == 0;
    if (!ok) error = errno;
    ok = ::close(fd) == 0 && ok;
    if (ok && ::rename(staged.c_str(), path.c_str()) != 0) {
        ok = false;
        error = errno;
    }
    if (!ok) {
        ::unlink(staged.c_str());
        why = "cannot write \"" + path + "\": " + std::strerror(error);
    }
    return ok;
}

}  // namespace qvapp
