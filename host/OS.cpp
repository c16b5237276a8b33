#include "host/OS.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "host/PathMap.h"
#include "host/Paths.h"

namespace {

// The host's allocator is the process's global operator new: a block that a
// plug-in allocates through it may be freed by host code with plain delete,
// and the other way round.
class Memory final : public iMemory {
  public:
    void* allocate(std::size_t size) override {
        void* p = ::operator new(size ? size : 1);
        live_.fetch_add(1, std::memory_order_relaxed);
        total_.fetch_add(1, std::memory_order_relaxed);
        return p;
    }
    void free(void* block) override {
        if (!block) return;
        live_.fetch_sub(1, std::memory_order_relaxed);
        ::operator delete(block);
    }
    void* allocateArray(std::size_t size) override {
        void* p = ::operator new[](size ? size : 1);
        live_.fetch_add(1, std::memory_order_relaxed);
        total_.fetch_add(1, std::memory_order_relaxed);
        return p;
    }
    void freeArray(void* block) override {
        if (!block) return;
        live_.fetch_sub(1, std::memory_order_relaxed);
        ::operator delete[](block);
    }
    std::int64_t liveBlocks() const override { return live_.load(); }
    std::int64_t totalAllocations() const override { return total_.load(); }

  private:
    std::atomic<std::int64_t> live_{0};
    std::atomic<std::int64_t> total_{0};
};

class Atomics final : public iAtomics {
  public:
    int increment(int* count) override { return __atomic_add_fetch(count, 1, __ATOMIC_ACQ_REL); }
    int decrement(int* count) override { return __atomic_sub_fetch(count, 1, __ATOMIC_ACQ_REL); }
};

struct WriteFailures {
    std::mutex mutex;
    std::vector<FileWriteFailure> list;
};
WriteFailures& writeFailures() {
    static WriteFailures* w = new WriteFailures;
    return *w;
}

void recordWriteFailure(const LightweightString<wchar_t>& path, int error) {
    WriteFailures& w = writeFailures();
    std::lock_guard<std::mutex> lock(w.mutex);
    for (const FileWriteFailure& f : w.list)
        if (f.path == path) return;  // the first reason is the one that counts
    w.list.push_back({path, error});
}

class PosixFile final : public iFile {
  public:
    PosixFile(int fd, LightweightString<wchar_t> path, bool writing)
        : fd_(fd), path_(std::move(path)), writing_(writing) {}
    ~PosixFile() override {
        if (::close(fd_) != 0 && writing_ && errno != EINTR) recordWriteFailure(path_, errno);
    }

    unsigned read(void* buffer, unsigned count) override {
        unsigned done = 0;
        while (done < count) {
            ssize_t n = ::read(fd_, static_cast<char*>(buffer) + done, count - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            done += static_cast<unsigned>(n);
        }
        return done;
    }
    unsigned write(const void* buffer, unsigned count) override {
        unsigned done = 0;
        while (done < count) {
            ssize_t n = ::write(fd_, static_cast<const char*>(buffer) + done, count - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                recordWriteFailure(path_, n < 0 ? errno : ENOSPC);
                break;
            }
            done += static_cast<unsigned>(n);
        }
        return done;
    }
    std::uint64_t size() override {
        struct stat st;
        return ::fstat(fd_, &st) == 0 ? static_cast<std::uint64_t>(st.st_size) : 0;
    }

  private:
    int fd_;
    LightweightString<wchar_t> path_;
    bool writing_;
};

// A file read from memory: what an overlay puts in place of a file's bytes.
class MemoryFile final : public iFile {
  public:
    explicit MemoryFile(std::shared_ptr<const std::string> bytes) : bytes_(std::move(bytes)) {}
    unsigned read(void* buffer, unsigned count) override {
        std::size_t left = bytes_->size() - at_;
        std::size_t n = count < left ? count : left;
        std::memcpy(buffer, bytes_->data() + at_, n);
        at_ += n;
        return static_cast<unsigned>(n);
    }
    unsigned write(const void*, unsigned) override { return 0; }
    std::uint64_t size() override { return bytes_->size(); }
    const char* contents() override { return bytes_->c_str(); }

  private:
    std::shared_ptr<const std::string> bytes_;
    std::size_t at_ = 0;
};

struct Overlays {
    struct Entry {
        std::shared_ptr<const std::string> bytes;
        bool once = false;
    };
    std::mutex mutex;
    std::map<std::wstring, Entry> content;
};
Overlays& overlays() {
    static Overlays* o = new Overlays;
    return *o;
}

class FileSystem final : public iFileSystem {
  public:
    bool exists(const LightweightString<wchar_t>& path) override {
        if (path.empty()) return false;
        struct stat st;
        return ::stat(pathBytes(path).c_str(), &st) == 0;
    }
    bool remove(const LightweightString<wchar_t>& path) override {
        return !path.empty() && ::unlink(pathBytes(path).c_str()) == 0;
    }
    Qv::Ptr<iFile> open(const LightweightString<wchar_t>& path, int access, int /*sharing*/,
                        int disposition, int /*flags*/) override {
        if (path.empty()) return nullptr;
        if (access != 2) {
            Overlays& o = overlays();
            std::lock_guard<std::mutex> lock(o.mutex);
            auto it = o.content.find(path.str());
            if (it != o.content.end()) {
                Qv::Ptr<iFile> file(new MemoryFile(it->second.bytes));
                if (it->second.once) o.content.erase(it);
                return file;
            }
        }
        int mode;
        if (access == 2) {
            // Writing: disposition 3 creates the file or truncates it.
            mode = O_WRONLY | O_CREAT | (disposition == 3 ? O_TRUNC : 0);
        } else {
            mode = O_RDONLY;
        }
        int fd = ::open(pathBytes(path).c_str(), mode | O_CLOEXEC, 0666);
        if (fd < 0) return nullptr;
        struct stat st;
        if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
            ::close(fd);
            return nullptr;
        }
        return Qv::Ptr<iFile>(new PosixFile(fd, path, access == 2));
    }
};

class Layer final : public iOS {
  public:
    iMemory* memory() override { return &memory_; }
    iAtomics* atomics() override { return &atomics_; }
    iFileSystem* files() override { return &files_; }

  private:
    Memory memory_;
    Atomics atomics_;
    FileSystem files_;
};

class PlatformFileSystem final : public iPlatformFileSystem {
  public:
    // The file of this machine that a locator names, after the path map
    // has moved it.
    LightweightString<wchar_t> platformForm(const LightweightString<wchar_t>& locator) override {
        LightweightString<wchar_t> platform = locatorToPlatformForm(locator);
        std::shared_ptr<const PathMap> map = locatorMap();
        return map && !map->empty() ? map->apply(platform) : platform;
    }
};

class PrivateLayer final : public iOSPrivate {
  public:
    iPlatformFileSystem* fileSystem() override { return &fs_; }

  private:
    PlatformFileSystem fs_;
};

}  // namespace

void setFileOverlay(const LightweightString<wchar_t>& path, std::string content, bool once) {
    Overlays& o = overlays();
    std::lock_guard<std::mutex> lock(o.mutex);
    o.content[path.str()] = {std::make_shared<const std::string>(std::move(content)), once};
}

std::vector<FileWriteFailure> takeFileWriteFailures() {
    WriteFailures& w = writeFailures();
    std::lock_guard<std::mutex> lock(w.mutex);
    std::vector<FileWriteFailure> out;
    out.swap(w.list);
    return out;
}

int takeFileWriteFailure(const LightweightString<wchar_t>& path) {
    WriteFailures& w = writeFailures();
    std::lock_guard<std::mutex> lock(w.mutex);
    for (auto it = w.list.begin(); it != w.list.end(); ++it)
        if (it->path == path) {
            int error = it->error;
            w.list.erase(it);
            return error;
        }
    return 0;
}

void clearFileOverlay(const LightweightString<wchar_t>& path) {
    Overlays& o = overlays();
    std::lock_guard<std::mutex> lock(o.mutex);
    o.content.erase(path.str());
}

// The layer is never destroyed: strings and handles may be released during
// the destruction of other statics, in any order.
iOS* OS() {
    static Layer* layer = new Layer;
    return layer;
}

iOSPrivate* OSPrivate() {
    static PrivateLayer* layer = new PrivateLayer;
    return layer;
}

namespace QvOS {
void* allocate(std::size_t size) {
    return OS()->memory()->allocate(size);
}
void free(void* block) {
    OS()->memory()->free(block);
}
int atomicIncrement(int* count) {
    return OS()->atomics()->increment(count);
}
int atomicDecrement(int* count) {
    return OS()->atomics()->decrement(count);
}
}  // namespace QvOS
