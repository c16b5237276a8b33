#include "host/Paths.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>

#include "host/OS.h"

namespace {

using WS = LightweightString<wchar_t>;

bool isSeparator(wchar_t c) {
    return c == L'/' || c == L'\\';
}

bool isUNC(const WS& s) {
    return s.size() >= 2 && s[0] == L'\\' && s[1] == L'\\';
}

int hexValue(char32_t c) {
    if (c >= '0' && c <= '9') return static_cast<int>(c - '0');
    if (c >= 'a' && c <= 'f') return static_cast<int>(c - 'a' + 10);
    if (c >= 'A' && c <= 'F') return static_cast<int>(c - 'A' + 10);
    return -1;
}

// Where the scheme of a URL ends (the position of ':'), or npos.
size_t schemeEnd(std::wstring_view s) {
    size_t i = 0;
    while (i < s.size() && ((s[i] >= L'a' && s[i] <= L'z') || (s[i] >= L'A' && s[i] <= L'Z') ||
                            (i > 0 && ((s[i] >= L'0' && s[i] <= L'9') || s[i] == L'+' ||
                                       s[i] == L'-' || s[i] == L'.'))))
        ++i;
    // One letter is a drive ("C:\"), not a scheme.
    if (i < 2 || i >= s.size() || s[i] != L':') return std::wstring_view::npos;
    return i;
}

// Whether a byte of a path stands for itself in a file URL.
bool keptInURL(unsigned c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~' || c == '/';
}

// Writes a byte of a path into a file URL at `out` (three places at most):
// itself, or its escape. Returns where the next goes.
template <class Char>
Char* putEscaped(Char* out, unsigned b) {
    static const char hex[] = "0123456789ABCDEF";
    if (keptInURL(b)) {
        *out++ = static_cast<Char>(b);
        return out;
    }
    *out++ = static_cast<Char>('%');
    *out++ = static_cast<Char>(hex[b >> 4]);
    *out++ = static_cast<Char>(hex[b & 15]);
    return out;
}

// Hands `put` what each character of `s` stands for: the byte of an escape
// (with `escaped` true), or the character itself. An escape needs a
// character after its two digits; otherwise the '%' stands for itself.
template <class Char, class Put>
void forEachDecoded(std::basic_string_view<Char> s, Put put) {
    using Unsigned = std::make_unsigned_t<Char>;
    auto at = [&](size_t i) { return static_cast<char32_t>(static_cast<Unsigned>(s[i])); };
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '%' && i + 2 < s.size()) {
            int hi = hexValue(at(i + 1));
            int lo = hexValue(at(i + 2));
            if (hi >= 0 && lo >= 0) {
                put(static_cast<char32_t>(hi * 16 + lo), true);
                i += 2;
                continue;
            }
        }
        put(at(i), false);
    }
}

// Writes the bytes of one character of a path at `out` (four at most):
// itself below 0x80, the raw byte that pathFromBytes kept as U+DC80..U+DCFF,
// UTF-8 otherwise. Returns where the next goes.
char* putPathBytes(char* out, wchar_t w) {
    char32_t c = static_cast<char32_t>(w);
    if (c < 0x80) {
        *out++ = static_cast<char>(c);
    } else if (c >= 0xDC80 && c <= 0xDCFF) {
        *out++ = static_cast<char>(c - 0xDC00);
    } else {
        std::string utf8;  // four bytes at most: held in place
        appendUTF8(utf8, c);
        std::memcpy(out, utf8.data(), utf8.size());
        out += utf8.size();
    }
    return out;
}

// The paths below are built in place: sized for the longest they can be,
// written through a pointer, and cut to what was written.
template <class String>
void cutAt(String& s, const typename String::value_type* end) {
    s.resize(static_cast<std::size_t>(end - s.data()));
}

}  // namespace

bool locator_IsURL(const WS& locator) {
    std::wstring_view s = locator.view();
    size_t end = schemeEnd(s);
    if (end == std::wstring_view::npos) return false;
    std::wstring_view rest = s.substr(end + 1);
    if (rest.starts_with(L"//")) return true;
    // "file:/path" is a URL without an authority.
    std::wstring scheme(s.substr(0, end));
    std::transform(scheme.begin(), scheme.end(), scheme.begin(), ::towlower);
    return scheme == L"file";
}

bool locator_IsLocal(const WS& locator) {
    return !locator.empty() && !locator_IsURL(locator) && !isUNC(locator);
}

bool locator_LocalToUNC(WS& in, WS& out) {
    if (in.empty() || in[0] != L'/' || (in.size() > 1 && in[1] == L'/')) return false;
    std::wstring s(11 + in.size(), L'\0');
    std::wstring_view prefix = L"\\\\localhost";
    wchar_t* p = std::copy(prefix.begin(), prefix.end(), s.data());
    for (wchar_t c : in.view())
        *p++ = c == L'/' ? L'\\' : c;
    out = WS(s);
    return true;
}

bool locator_UNCToURL(WS& in, WS& out) {
    if (!isUNC(in)) return false;
    std::wstring_view rest = in.view().substr(2);
    size_t slash = rest.find(L'\\');
    std::wstring_view host = rest.substr(0, slash);
    std::wstring_view pathPart =
        slash == std::wstring_view::npos ? std::wstring_view() : rest.substr(slash);
    // The path's bytes, escaped where a URL needs it, in one pass.
    std::wstring url(7 + host.size() + 12 * pathPart.size() + 1, L'\0');
    std::wstring_view scheme = L"file://";
    wchar_t* p = std::copy(scheme.begin(), scheme.end(), url.data());
    p = std::copy(host.begin(), host.end(), p);
    if (pathPart.empty()) *p++ = L'/';
    for (wchar_t c : pathPart) {
        if (c >= 0 && c < 0x80) {
            p = putEscaped(p, c == L'\\' ? '/' : static_cast<unsigned>(c));
            continue;
        }
        char bytes[4];
        char* end = putPathBytes(bytes, c);
        for (char* b = bytes; b < end; ++b)
            p = putEscaped(p, static_cast<unsigned char>(*b));
    }
    cutAt(url, p);
    out = WS(url);
    return true;
}

bool locator_UNCToLocal(WS& in, WS& out) {
    if (!isUNC(in)) return false;
    std::wstring_view rest = in.view().substr(2);
    size_t slash = rest.find(L'\\');
    std::wstring_view host = rest.substr(0, slash);
    if (!host.empty() && host != L"localhost") return false;
    std::wstring path;
    if (slash != std::wstring_view::npos) {
        for (wchar_t c : rest.substr(slash))
            path.push_back(c == L'\\' ? L'/' : c);
    }
    if (path.empty()) path = L"/";
    out = WS(path);
    return true;
}

LightweightString<char> percentEncode(const LightweightString<char>& text) {
    std::string out(3 * text.size(), '\0');
    char* p = out.data();
    for (char c : text.view())
        p = putEscaped(p, static_cast<unsigned char>(c));
    cutAt(out, p);
    return LightweightString<char>(out);
}

LightweightString<char> percentDecode(const LightweightString<char>& text) {
    std::string out;
    out.reserve(text.size());
    forEachDecoded(text.view(), [&](char32_t b, bool) { out.push_back(static_cast<char>(b)); });
    return LightweightString<char>(out);
}

WS locatorToPlatformForm(const WS& locator) {
    std::wstring_view s = locator.view();
    size_t end = schemeEnd(s);
    if (end == std::wstring_view::npos) return locator;
    std::wstring scheme(s.substr(0, end));
    std::transform(scheme.begin(), scheme.end(), scheme.begin(), ::towlower);
    if (scheme != L"file") return locator;
    std::wstring_view rest = s.substr(end + 1);
    std::wstring_view host;
    if (rest.starts_with(L"//")) {
        rest.remove_prefix(2);
        size_t slash = rest.find(L'/');
        host = rest.substr(0, slash);
        rest = slash == std::wstring_view::npos ? std::wstring_view() : rest.substr(slash);
    }
    // The escapes stand for the bytes of the path, which need not be UTF-8;
    // the other characters stand for their own bytes.
    std::string bytes(4 * rest.size(), '\0');
    char* p = bytes.data();
    forEachDecoded(rest, [&](char32_t c, bool escaped) {
        if (escaped)
            *p++ = static_cast<char>(c);
        else
            p = putPathBytes(p, static_cast<wchar_t>(c));
    });
    cutAt(bytes, p);
    WS path = pathFromBytes(bytes);
    if (path.empty()) path = WS(L"/");
    if (host.empty() || host == L"localhost") return path;
    std::wstring unc(2 + host.size() + path.size(), L'\\');
    wchar_t* q = std::copy(host.begin(), host.end(), unc.data() + 2);
    for (wchar_t c : path.view())
        *q++ = c == L'/' ? L'\\' : c;
    return WS(unc);
}

WS localPathToURL(const WS& path) {
    WS in = path, unc, url;
    if (!locator_LocalToUNC(in, unc) || !locator_UNCToURL(unc, url)) return {};
    return url;
}

WS getPath(const WS& path) {
    std::wstring_view s = path.view();
    size_t i = s.size();
    while (i > 0 && !isSeparator(s[i - 1]))
        --i;
    if (i == 0) return {};
    // Keep a lone root separator; drop a trailing one otherwise.
    if (i == 1) return WS(s.substr(0, 1));
    return WS(s.substr(0, i - 1));
}

WS stripPath(const WS& path) {
    std::wstring_view s = path.view();
    size_t i = s.size();
    while (i > 0 && !isSeparator(s[i - 1]))
        --i;
    return WS(s.substr(i));
}

WS stripExtension(const WS& path) {
    std::wstring_view s = path.view();
    size_t dot = s.rfind(L'.');
    if (dot == std::wstring_view::npos) return path;
    for (size_t i = dot; i < s.size(); ++i)
        if (isSeparator(s[i])) return path;
    // A name that only starts with a dot (".profile") has no extension.
    if (dot == 0 || isSeparator(s[dot - 1])) return path;
    return WS(s.substr(0, dot));
}

WS getExtension(const WS& path, bool withDot) {
    WS stem = stripExtension(path);
    if (stem.size() == path.size()) return {};
    return path.substr(stem.size() + (withDot ? 0 : 1));
}

WS joinPath(const WS& dir, const WS& name) {
    if (dir.empty()) return name;
    if (isSeparator(dir.back())) return dir + name;
    return dir + L"/" + name;
}

WS pathFromBytes(std::string_view bytes) {
    // A character for each byte at most.
    std::wstring out(bytes.size(), L'\0');
    wchar_t* p = out.data();
    size_t i = 0;
    while (i < bytes.size()) {
        unsigned char b = static_cast<unsigned char>(bytes[i]);
        if (b < 0x80) {
            *p++ = static_cast<wchar_t>(b);
            ++i;
            continue;
        }
        // The length of the sequence that this byte begins, and the smallest
        // value it may encode (longer forms of smaller values are not UTF-8).
        size_t extra = (b & 0xE0) == 0xC0 ? 1 : (b & 0xF0) == 0xE0 ? 2 : (b & 0xF8) == 0xF0 ? 3 : 0;
        static const char32_t minimum[4] = {0, 0x80, 0x800, 0x10000};
        char32_t c = b & (0x3F >> extra);
        bool ok = extra > 0;
        for (size_t k = 1; ok && k <= extra; ++k) {
            if (i + k >= bytes.size()) {
                ok = false;
                break;
            }
            unsigned char cb = static_cast<unsigned char>(bytes[i + k]);
            if ((cb & 0xC0) != 0x80) ok = false;
            c = (c << 6) | (cb & 0x3F);
        }
        if (ok && c >= minimum[extra] && c <= 0x10FFFF && !(c >= 0xD800 && c <= 0xDFFF)) {
            *p++ = static_cast<wchar_t>(c);
            i += extra + 1;
        } else {
            *p++ = static_cast<wchar_t>(0xDC00 + b);
            ++i;
        }
    }
    cutAt(out, p);
    return WS(out);
}

std::string pathBytes(const WS& path) {
    std::string out(4 * path.size(), '\0');
    char* p = out.data();
    for (wchar_t w : path.view())
        p = putPathBytes(p, w);
    cutAt(out, p);
    return out;
}

bool fileExists(const WS& path) {
    if (path.empty()) return false;
    struct stat st;
    return ::stat(pathBytes(path).c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool isDirectory(const WS& path) {
    if (path.empty()) return false;
    struct stat st;
    return ::stat(pathBytes(path).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// ---- looking for a file by its name ----
//
// The answers are those of reading each folder, sorting its names by their
// bytes, looking at each entry (lstat) and comparing its name byte for byte,
// then doing the same in each sub-folder, in name order, eight deep at most.
// They are found faster: in one folder, by looking at the one path
// folder/name; in a tree, by walking it once into an index of names that a
// DirectorySearchScope keeps.
//
// A file is a regular file, or a link to one. Other entries of the name
// (pipes, devices, sockets, links to folders or to nothing) are never taken
// for a file: opening one could block or read without end. They are passed
// over, with a warning in the scope's log.

namespace {

constexpr int kMaxDepth = 8;

enum class Kind : std::uint8_t {
    Folder,
    File,
    Pipe,
    Device,
    Socket,
    LinkToFolder,
    LinkToNothing,
    Other,
};

const char* describe(Kind kind) {
    switch (kind) {
        case Kind::Pipe:
            return "a pipe (FIFO)";
        case Kind::Device:
            return "a device";
        case Kind::Socket:
            return "a socket";
        case Kind::LinkToFolder:
            return "a link to a folder";
        case Kind::LinkToNothing:
            return "a link to nothing";
        default:
            return "not a regular file";
    }
}

Kind kindOfMode(mode_t mode) {
    if (S_ISDIR(mode)) return Kind::Folder;
    if (S_ISREG(mode)) return Kind::File;
    if (S_ISFIFO(mode)) return Kind::Pipe;
    if (S_ISCHR(mode) || S_ISBLK(mode)) return Kind::Device;
    if (S_ISSOCK(mode)) return Kind::Socket;
    return Kind::Other;
}

// What an entry is, from what lstat said of it; a link is followed.
Kind kindOf(const std::string& full, const struct stat& st) {
    if (!S_ISLNK(st.st_mode)) return kindOfMode(st.st_mode);
    struct stat target;
    if (::stat(full.c_str(), &target) != 0) return Kind::LinkToNothing;
    Kind k = kindOfMode(target.st_mode);
    return k == Kind::Folder ? Kind::LinkToFolder : k;
}

std::string childPath(const std::string& dir, const std::string& name) {
    if (dir.empty()) return name;
    return dir.back() == '/' ? dir + name : dir + "/" + name;
}

// The entries of a folder, without "." and "..", in the order readdir gives
// them; false when it cannot be read.
bool readFolder(const std::string& dir, std::vector<std::string>& names) {
    DIR* d = ::opendir(dir.empty() ? "." : dir.c_str());
    if (!d) return false;
    while (dirent* e = ::readdir(d)) {
        if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
            names.emplace_back(e->d_name);
    }
    ::closedir(d);
    return true;
}

bool folderCanBeRead(const std::string& dir) {
    int fd = ::open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    ::close(fd);
    return true;
}

// What an entry is, from the type readdir gave (DT_*): the entry is looked
// at (lstat) only where the folder's file system does not say, and a link is
// followed.
Kind kindOfEntry(const std::string& full, unsigned char type, bool& gone) {
    gone = false;
    switch (type) {
        case DT_DIR:
            return Kind::Folder;
        case DT_REG:
            return Kind::File;
        case DT_FIFO:
            return Kind::Pipe;
        case DT_CHR:
        case DT_BLK:
            return Kind::Device;
        case DT_SOCK:
            return Kind::Socket;
        default:
            break;
    }
    struct stat st;
    if (::lstat(full.c_str(), &st) != 0) {
        gone = true;
        return Kind::Other;
    }
    return kindOf(full, st);
}

// Every name in a folder and the folders below it, in the order the search
// reports them: a folder's own entries, then each sub-folder's, in name
// order. A tree holds thousands of names: they are kept one after another in
// a single text and found through an open-addressed table of entry numbers,
// so that the index costs a few blocks of memory rather than two for each
// name.
class TreeIndex {
  public:
    explicit TreeIndex(const std::string& root) {
        walk(root, 0);
        // Entries of one name are chained in the order of the walk: folder
        // by folder, as the search visits them.
        std::size_t size = 16;
        while (size < 2 * entries_.size())
            size *= 2;
        slots_.assign(size, kNone);
        next_.assign(entries_.size(), kNone);
        std::vector<std::uint32_t> last(entries_.size(), kNone);
        for (std::uint32_t i = 0; i < entries_.size(); ++i) {
            std::uint32_t& slot = slots_[slotAt(nameOf(i))];
            if (slot == kNone) {
                slot = i;
                last[i] = i;
            } else {
                next_[last[slot]] = i;
                last[slot] = i;
            }
        }
    }

    template <class Visit>
    void find(const std::string& name, Visit visit) const {
        for (std::uint32_t i = slots_[slotAt(name)]; i != kNone; i = next_[i])
            visit(childPath(folders_[entries_[i].folder], std::string(nameOf(i))),
                  entries_[i].kind);
    }

  private:
    static constexpr std::uint32_t kNone = 0xFFFFFFFF;
    struct Entry {
        std::uint32_t offset, length;  // of the name in names_
        std::uint32_t folder;
        Kind kind;
    };

    std::string_view nameOf(std::uint32_t i) const {
        return std::string_view(names_).substr(entries_[i].offset, entries_[i].length);
    }
    // The slot of the first entry so named, or the empty one where it would
    // go; the table is never full.
    std::size_t slotAt(std::string_view name) const {
        const std::size_t mask = slots_.size() - 1;
        std::size_t at = std::hash<std::string_view>{}(name)&mask;
        while (slots_[at] != kNone && nameOf(slots_[at]) != name)
            at = (at + 1) & mask;
        return at;
    }

    void walk(const std::string& dir, int depth) {
        DIR* d = ::opendir(dir.empty() ? "." : dir.c_str());
        if (!d) return;
        auto here = static_cast<std::uint32_t>(folders_.size());
        folders_.push_back(dir);
        std::vector<std::string> subfolders;
        while (dirent* e = ::readdir(d)) {
            if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
            std::string_view name = e->d_name;
            // A regular file, the most of any tree, needs no path of its own.
            Kind kind = Kind::File;
            if (e->d_type != DT_REG) {
                std::string full = childPath(dir, std::string(name));
                bool gone;
                kind = kindOfEntry(full, e->d_type, gone);
                if (gone) continue;
                if (kind == Kind::Folder) subfolders.push_back(std::move(full));
            }
            entries_.push_back({static_cast<std::uint32_t>(names_.size()),
                                static_cast<std::uint32_t>(name.size()), here, kind});
            names_.append(name);
        }
        ::closedir(d);
        // Links to folders are not followed, so the walk cannot loop; the
        // depth bound keeps a search near its folder. Sub-folders go in the
        // order of their names' bytes (they share their folder's path).
        if (depth < kMaxDepth) {
            std::sort(subfolders.begin(), subfolders.end());
            for (const std::string& sub : subfolders)
                walk(sub, depth + 1);
        }
    }

    std::vector<std::string> folders_;
    std::string names_;
    std::vector<Entry> entries_;
    std::vector<std::uint32_t> slots_;  // a power of two, at least twice the entries
    std::vector<std::uint32_t> next_;   // the next entry of the same name
};

thread_local DirectorySearchScope::State* currentSearch = nullptr;

}  // namespace

struct DirectorySearchScope::State {
    LoggerHandle log;
    std::map<std::string, std::unique_ptr<TreeIndex>> trees;
    std::map<std::string, bool> readable;
    std::map<std::string, std::unordered_set<std::string>> names;
    std::unordered_set<std::string> passedOver;

    const TreeIndex& tree(const std::string& root) {
        std::unique_ptr<TreeIndex>& t = trees[root];
        if (!t) t = std::make_unique<TreeIndex>(root);
        return *t;
    }
    bool canRead(const std::string& dir) {
        auto [it, fresh] = readable.try_emplace(dir, false);
        if (fresh) it->second = folderCanBeRead(dir);
        return it->second;
    }
    bool holds(const std::string& dir, const std::string& name) {
        auto [it, fresh] = names.try_emplace(dir);
        if (fresh) {
            std::vector<std::string> list;
            readFolder(dir, list);
            it->second.insert(list.begin(), list.end());
        }
        return it->second.count(name) > 0;
    }
    void passOver(const std::string& full, Kind kind) {
        if (!passedOver.insert(full).second) return;
        log.WarningOut("passed over \"%s\": it is %s, not a regular file", full.c_str(),
                       describe(kind));
    }
};

DirectorySearchScope::DirectorySearchScope(LoggerHandle log)
    : state_(new State), outer_(currentSearch) {
    state_->log = std::move(log);
    currentSearch = state_;
}

DirectorySearchScope::~DirectorySearchScope() {
    currentSearch = outer_;
    delete state_;
}

namespace {

bool holdsName(DirectorySearchScope::State* scope, const std::string& dir,
               const std::string& name) {
    if (scope) return scope->holds(dir, name);
    std::vector<std::string> list;
    readFolder(dir, list);
    return std::find(list.begin(), list.end(), name) != list.end();
}

// Whether the entry that dir/name reached is named so byte for byte. In a
// folder that folds case (a FAT or exFAT drive, a case-insensitive share)
// the path reaches "Clip.MOV" too, which a comparison of names would not
// take. Where the name with its ASCII letters in the other case reaches
// another entry, or none, the folder tells names apart and the answer is
// yes; otherwise the folder's own list of names decides.
bool namedExactly(DirectorySearchScope::State* scope, const std::string& dir,
                  const std::string& name, const struct stat& reached) {
    std::string swapped = name;
    bool letters = false;
    for (char& c : swapped) {
        if (c >= 'a' && c <= 'z') {
            c = static_cast<char>(c - 'a' + 'A');
            letters = true;
        } else if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
            letters = true;
        }
    }
    if (letters) {
        struct stat other;
        if (::lstat(childPath(dir, swapped).c_str(), &other) != 0 ||
            other.st_ino != reached.st_ino || other.st_dev != reached.st_dev)
            return true;
    }
    return holdsName(scope, dir, name);
}

// Adds what the search takes of an entry of the name, or passes it over.
void take(DirectorySearchScope::State* scope, const std::string& full, Kind kind, unsigned flags,
          WStringList& found) {
    if (kind == Kind::Folder) {
        if (flags & kDirIncludeDirectories) found.push_back(pathFromBytes(full));
    } else if (flags & kDirIncludeFiles) {
        if (kind == Kind::File)
            found.push_back(pathFromBytes(full));
        else if (scope)
            scope->passOver(full, kind);
    }
}

void findInFolder(DirectorySearchScope::State* scope, const std::string& dir,
                  const std::string& name, unsigned flags, WStringList& found) {
    // No entry of a folder is called so, or holds a separator or a zero.
    if (name == "." || name == ".." ||
        name.find_first_of(std::string("/\0", 2)) != std::string::npos)
        return;
    std::string full = childPath(dir, name);
    struct stat st;
    if (::lstat(full.c_str(), &st) != 0) return;
    // A folder that cannot be listed gives no names.
    if (!(scope ? scope->canRead(dir) : folderCanBeRead(dir))) return;
    if (!namedExactly(scope, dir, name, st)) return;
    take(scope, full, kindOf(full, st), flags, found);
}

}  // namespace

void getDirectoryContents(const WS& dir, const WS& name, WStringList& found, unsigned int flags) {
    if (name.empty()) return;
    std::string folder = pathBytes(dir), wanted = pathBytes(name);
    // A path cannot hold a zero byte: no folder is called so.
    if (folder.find('\0') != std::string::npos) return;
    DirectorySearchScope::State* scope = currentSearch;
    auto visit = [&](const std::string& full, Kind kind) { take(scope, full, kind, flags, found); };
    if (!(flags & kDirRecurse))
        findInFolder(scope, folder, wanted, flags, found);
    else if (scope)
        scope->tree(folder).find(wanted, visit);
    else
        TreeIndex(folder).find(wanted, visit);
}

namespace Qv::FilespecUtils {

WS makeValidFilespec(const WS& directory, const WS& stem, const WS& extension, bool allowSeparators,
                     wchar_t replacement) {
    auto clean = [&](std::wstring_view part, bool separatorsOk) {
        std::wstring out;
        for (wchar_t c : part) {
            bool bad = c < 0x20 || c == 0x7F || c == L':' || c == L'*' || c == L'?' || c == L'"' ||
                       c == L'<' || c == L'>' || c == L'|' || (!separatorsOk && isSeparator(c));
            out.push_back(bad ? replacement : c);
        }
        return out;
    };
    std::wstring name = clean(stem.view(), allowSeparators);
    // Names made only of full stops would climb out of (or stay at) the
    // directory itself.
    if (name.empty() || name.find_first_not_of(L'.') == std::wstring::npos)
        name = std::wstring(std::max<size_t>(name.size(), 1), replacement);
    if (allowSeparators) {
        // Separators are allowed inside the stem, but no part may be "..".
        std::wstring rebuilt, part;
        for (size_t i = 0; i <= name.size(); ++i) {
            if (i == name.size() || isSeparator(name[i])) {
                if (part == L"..") part = std::wstring(2, replacement);
                rebuilt += part;
                if (i < name.size()) rebuilt.push_back(L'/');
                part.clear();
            } else {
                part.push_back(name[i]);
            }
        }
        name = rebuilt;
        while (!name.empty() && isSeparator(name.front()))
            name.erase(name.begin());
    }
    name += clean(extension.view(), false);
    return joinPath(directory, WS(name));
}

}  // namespace Qv::FilespecUtils
