// Locators and paths.
//
// A locator says where a piece of media is, in one of three forms:
//   local path   /media/day 1/a.mov
//   UNC form     \\localhost\media\day 1\a.mov   (\\server\share\... for other machines)
//   URL          file://localhost/media/day%201/a.mov
// URLs carry spaces, non-ASCII characters and other reserved bytes
// percent-encoded (UTF-8 bytes); local paths and UNC forms carry them as they are.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/Containers.h"
#include "host/LightweightString.h"
#include "host/Logger.h"

using WStringList =
    std::vector<LightweightString<wchar_t>, StdAllocator<LightweightString<wchar_t>>>;

bool locator_IsLocal(const LightweightString<wchar_t>& locator);
bool locator_IsURL(const LightweightString<wchar_t>& locator);
bool locator_LocalToUNC(LightweightString<wchar_t>& in, LightweightString<wchar_t>& out);
bool locator_UNCToURL(LightweightString<wchar_t>& in, LightweightString<wchar_t>& out);
bool locator_UNCToLocal(LightweightString<wchar_t>& in, LightweightString<wchar_t>& out);

// The form this platform's file system understands: a file URL becomes a local
// path (or, for another machine, a UNC form) with its escapes decoded; every
// other locator is returned as it is.
LightweightString<wchar_t> locatorToPlatformForm(const LightweightString<wchar_t>& locator);
// A local path as a file URL; empty if the path is not absolute.
LightweightString<wchar_t> localPathToURL(const LightweightString<wchar_t>& path);

// Percent-encoding of the bytes of a UTF-8 text: everything but unreserved
// characters and the separator '/' is escaped. Decoding leaves malformed
// escapes as they stand.
LightweightString<char> percentEncode(const LightweightString<char>& text);
LightweightString<char> percentDecode(const LightweightString<char>& text);

// Path text. Both '/' and '\' separate directories, so that UNC forms work.
LightweightString<wchar_t> getPath(const LightweightString<wchar_t>& path);
LightweightString<wchar_t> stripPath(const LightweightString<wchar_t>& path);
LightweightString<wchar_t> stripExtension(const LightweightString<wchar_t>& path);
// The extension of the last name, with its full stop if `withDot`.
LightweightString<wchar_t> getExtension(const LightweightString<wchar_t>& path, bool withDot);
LightweightString<wchar_t> joinPath(const LightweightString<wchar_t>& dir,
                                    const LightweightString<wchar_t>& name);

// A path as the file system holds it is bytes, not text. These two turn the
// bytes into the host's wide string and back without loss: valid UTF-8 reads
// as its characters, and every byte that is not part of valid UTF-8 becomes
// one of the code points U+DC80 to U+DCFF (otherwise unused: they are lone
// surrogates), which turns back into that byte. Every host service that
// hands a path to the system goes through pathBytes.
LightweightString<wchar_t> pathFromBytes(std::string_view bytes);
std::string pathBytes(const LightweightString<wchar_t>& path);

bool fileExists(const LightweightString<wchar_t>& path);
bool isDirectory(const LightweightString<wchar_t>& path);

// Flags of getDirectoryContents.
enum : unsigned int {
    kDirIncludeDirectories = 1,
    kDirRecurse = 2,
    kDirIncludeFiles = 4,
};
// Fills `found` with the full paths of the entries of `dir` whose name is
// `name`, in name order; with kDirRecurse the sub-directories follow, in name
// order, after the entries of the directory itself. The name is compared
// byte for byte: "clip?.mov" and "Interview [take 2].mov" are names, not
// patterns. An empty `dir` is the current directory. Links to folders are
// never followed; the search goes eight folders deep at most.
//
// A file is a regular file or a link to one: a pipe, a device, a socket or a
// link to a folder or to nothing is never taken for one (reading it could
// block or never end); a DirectorySearchScope's log warns of each such entry
// of the name.
//
// Without kDirRecurse the answer costs a look at the one path dir/name. With
// it, the tree is walked once into an index of names while a
// DirectorySearchScope lives on the calling thread (once per call otherwise).
void getDirectoryContents(const LightweightString<wchar_t>& dir,
                          const LightweightString<wchar_t>& name, WStringList& found,
                          unsigned int flags);

// While one lives, getDirectoryContents on its thread answers from what it
// saw of each folder earlier in the scope's life: a run that looks for many
// names under one folder (an import that resolves the media of its shots)
// walks the folder once. Files that appear or go during the scope's life may
// be missed or reported. Entries passed over are told once each in `log`.
// Scopes nest; the innermost answers.
class DirectorySearchScope {
  public:
    explicit DirectorySearchScope(LoggerHandle log = LoggerHandle());
    ~DirectorySearchScope();
    DirectorySearchScope(const DirectorySearchScope&) = delete;
    DirectorySearchScope& operator=(const DirectorySearchScope&) = delete;
    struct State;

  private:
    State* state_;
    State* outer_;
};

namespace Qv::FilespecUtils {
// Joins a directory, a file stem and an extension (with its full stop) into a
// path inside that directory. Characters that a file name cannot hold, and any
// way of climbing out of the directory ('/', '\', "." and ".." as a name), are
// replaced by `replacement`.
LightweightString<wchar_t> makeValidFilespec(const LightweightString<wchar_t>& directory,
                                             const LightweightString<wchar_t>& stem,
                                             const LightweightString<wchar_t>& extension,
                                             bool allowSeparators, wchar_t replacement);
}  // namespace Qv::FilespecUtils
