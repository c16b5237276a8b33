// The host's operating-system layer: memory, atomic counts and files.
//
// Everything that crosses between the host and the plug-in allocates through
// OS()->memory(), so that a block made on one side can be freed on the other.
// Files are reached through OS()->files(), which knows two ways of opening a
// file: reading an existing one, and creating (or truncating) one for writing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "host/LightweightString.h"
#include "host/OSCore.h"
#include "host/Ptr.h"

class iMemory {
  public:
    virtual ~iMemory() = default;
    virtual void* allocate(std::size_t size) = 0;
    virtual void free(void* block) = 0;
    // Blocks for arrays, kept apart from single objects as the global
    // operators keep them, so that either side may free the other's.
    virtual void* allocateArray(std::size_t size) = 0;
    virtual void freeArray(void* block) = 0;
    // Live blocks and the total ever handed out; used by tests and benchmarks.
    virtual std::int64_t liveBlocks() const = 0;
    virtual std::int64_t totalAllocations() const = 0;
};

class iAtomics {
  public:
    virtual ~iAtomics() = default;
    // Both return the new value.
    virtual int increment(int* count) = 0;
    virtual int decrement(int* count) = 0;
};

// An open file. A null handle is how the file service says no.
class iFile : public iObject {
  public:
    virtual unsigned read(void* buffer, unsigned count) = 0;
    virtual unsigned write(const void* buffer, unsigned count) = 0;
    virtual std::uint64_t size() = 0;
    // All of a file that is already in memory (an overlay), followed by a
    // zero, for as long as the file is held; null for a file on the disk,
    // which is read.
    virtual const char* contents() { return nullptr; }
};

// Access arguments of iFileSystem::open. The host passes four numbers; only
// these two combinations are in use.
struct FileAccess {
    int access, sharing, disposition, flags;
};
inline constexpr FileAccess kOpenForReading{1, 0, 1, 0};
inline constexpr FileAccess kCreateForWriting{2, 3, 3, 0};

class iFileSystem {
  public:
    virtual ~iFileSystem() = default;
    // True for files and directories alike.
    virtual bool exists(const LightweightString<wchar_t>& path) = 0;
    virtual bool remove(const LightweightString<wchar_t>& path) = 0;
    virtual Qv::Ptr<iFile> open(const LightweightString<wchar_t>& path, int access, int sharing,
                                int disposition, int flags) = 0;
    Qv::Ptr<iFile> open(const LightweightString<wchar_t>& path, FileAccess a) {
        return open(path, a.access, a.sharing, a.disposition, a.flags);
    }
};

class iOS {
  public:
    virtual ~iOS() = default;
    virtual iMemory* memory() = 0;
    virtual iAtomics* atomics() = 0;
    virtual iFileSystem* files() = 0;
};

iOS* OS();

// While an overlay stands, opening `path` for reading through OS()->files()
// reads `content` instead of the file's own bytes. The command uses it to
// hand the plug-in the document it has read and checked (and mended, where
// it must), without reading the disk again or writing to it. An overlay
// `once` is handed to the first opening alone, and later ones read the disk:
// the bytes then live no longer than the reader holds them.
void setFileOverlay(const LightweightString<wchar_t>& path, std::string content, bool once = false);
void clearFileOverlay(const LightweightString<wchar_t>& path);

// Files written through OS()->files() whose writing failed: a write that
// did not take all it was given (a full disk, a quota, a file size limit) or
// a close that reported an error, with the system's error number. The
// plug-in does not look at what a write returns, so whoever runs an export
// asks here afterwards. Taking the list empties it.
struct FileWriteFailure {
    LightweightString<wchar_t> path;
    int error = 0;
};
std::vector<FileWriteFailure> takeFileWriteFailures();
// The error of the failed write of one file, taken from the list; 0 when its
// writing did not fail. Exports that run side by side each ask for their own.
int takeFileWriteFailure(const LightweightString<wchar_t>& path);

// The private half of the layer: turns a locator into the form that this
// platform's file system understands (see Paths.h).
class iPlatformFileSystem {
  public:
    virtual ~iPlatformFileSystem() = default;
    virtual LightweightString<wchar_t> platformForm(const LightweightString<wchar_t>& locator) = 0;
};

class iOSPrivate {
  public:
    virtual ~iOSPrivate() = default;
    virtual iPlatformFileSystem* fileSystem() = 0;
};

iOSPrivate* OSPrivate();
