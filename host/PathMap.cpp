#include "host/PathMap.h"

#include <mutex>
#include <string_view>

#include "host/Paths.h"

namespace {

using WS = LightweightString<wchar_t>;

wchar_t lower(wchar_t c) {
    return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c;
}

bool sameText(std::wstring_view a, std::wstring_view b, bool ignoreCase) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (ignoreCase ? lower(a[i]) != lower(b[i]) : a[i] != b[i]) return false;
    return true;
}

bool startsWithNoCase(std::wstring_view s, std::wstring_view prefix) {
    return s.size() >= prefix.size() && sameText(s.substr(0, prefix.size()), prefix, true);
}

bool isLetter(wchar_t c) {
    return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z');
}

// A locator taken apart: where it is (a POSIX path, a drive, a server) and
// the names of its folders, decoded; and how it was written, so that a moved
// locator can be written the same way.
struct Parsed {
    enum Kind { None, Posix, Drive, Unc } kind = None;
    std::wstring host;  // the server of a UNC name or URL
    wchar_t drive = 0;  // the drive letter
    std::vector<std::wstring> parts;
    bool url = false;            // written as a file URL
    std::wstring authority;      // a URL's authority as written: "", "localhost", a server
    bool slashes = false;        // a URL written "file://" rather than "file:"
    std::wstring driveSpelling;  // how a URL wrote its drive's colon: ":", "%3a" or "%3A"
    wchar_t separator = L'/';    // the separator a path was written with

    bool ignoresCase() const { return kind != Posix; }
};

void split(std::wstring_view s, bool backslashToo, std::vector<std::wstring>& parts) {
    std::wstring part;
    for (wchar_t c : s) {
        if (c == L'/' || (backslashToo && c == L'\\')) {
            if (!part.empty()) parts.push_back(part);
            part.clear();
        } else {
            part.push_back(c);
        }
    }
    if (!part.empty()) parts.push_back(part);
}

// "X:" or "X%3a" at the start of `s`: the length of the drive's text, or 0.
size_t driveAt(std::wstring_view s, std::wstring& spelling) {
    if (s.size() < 2 || !isLetter(s[0])) return 0;
    size_t n = 0;
    if (s[1] == L':') {
        n = 2;
    } else if (s.size() >= 4 && s[1] == L'%' && s[2] == L'3' && (s[3] == L'a' || s[3] == L'A')) {
        n = 4;
    } else {
        return 0;
    }
    if (s.size() > n && s[n] != L'/' && s[n] != L'\\') return 0;
    spelling = std::wstring(s.substr(1, n - 1));
    return n;
}

// A local path, with or without a drive: "/a/b", "D:\a", "/D:/a".
void parsePath(std::wstring_view s, Parsed& p) {
    std::wstring spelling;
    std::wstring_view rest = s;
    if (!rest.empty() && rest[0] == L'/' && driveAt(rest.substr(1), spelling))
        rest.remove_prefix(1);
    if (size_t n = driveAt(rest, spelling)) {
        p.kind = Parsed::Drive;
        p.drive = rest[0];
        p.driveSpelling = spelling;
        std::wstring_view tail = rest.substr(n);
        p.separator = tail.find(L'/') != std::wstring_view::npos &&
                              tail.find(L'\\') == std::wstring_view::npos
                          ? L'/'
                          : L'\\';
        split(tail, true, p.parts);
        return;
    }
    if (!rest.empty() && rest[0] == L'/') {
        p.kind = Parsed::Posix;
        split(rest, false, p.parts);
    }
}

Parsed parse(const WS& locator) {
    Parsed p;
    std::wstring_view s = locator.view();
    if (startsWithNoCase(s, L"file:")) {
        p.url = true;
        std::wstring_view rest = s.substr(5);
        if (rest.starts_with(L"//")) {
            p.slashes = true;
            rest.remove_prefix(2);
            size_t slash = rest.find(L'/');
            p.authority = std::wstring(rest.substr(0, slash));
            rest = slash == std::wstring_view::npos ? std::wstring_view() : rest.substr(slash);
        }
        // The drive is found in the text as written, so that its spelling
        // can be kept; the names are decoded.
        std::wstring decoded(fromUTF8(percentDecode(toUTF8(rest))).view());
        if (!p.authority.empty() && !sameText(p.authority, L"localhost", true)) {
            p.kind = Parsed::Unc;
            p.host = p.authority;
            split(decoded, false, p.parts);
            return p;
        }
        std::wstring spelling;
        if (rest.size() > 1 && rest[0] == L'/' && driveAt(rest.substr(1), spelling)) {
            parsePath(decoded, p);
            p.driveSpelling = spelling;
            return p;
        }
        if (decoded.empty()) decoded = L"/";
        parsePath(decoded, p);
        return p;
    }
    if (s.size() >= 2 && (s[0] == L'\\' || s[0] == L'/') && s[1] == s[0]) {
        std::vector<std::wstring> parts;
        split(s.substr(2), true, parts);
        if (parts.empty()) return p;
        if (sameText(parts[0], L"localhost", true)) {
            // \\localhost\a\b is the local /a/b (or D:\a when it names a drive).
            std::wstring local;
            for (size_t i = 1; i < parts.size(); ++i)
                local += L"/" + parts[i];
            parsePath(local.empty() ? L"/" : local, p);
            return p;
        }
        p.kind = Parsed::Unc;
        p.host = parts[0];
        p.parts.assign(parts.begin() + 1, parts.end());
        p.separator = s[0];
        return p;
    }
    parsePath(s, p);
    return p;
}

// True when `inner` is `outer` or lies inside it.
bool holds(const Parsed& outer, const Parsed& inner) {
    if (outer.kind == Parsed::None || outer.kind != inner.kind) return false;
    if (outer.kind == Parsed::Drive && lower(outer.drive) != lower(inner.drive)) return false;
    if (outer.kind == Parsed::Unc && !sameText(outer.host, inner.host, true)) return false;
    if (outer.parts.size() > inner.parts.size()) return false;
    for (size_t i = 0; i < outer.parts.size(); ++i)
        if (!sameText(outer.parts[i], inner.parts[i], outer.ignoresCase())) return false;
    return true;
}

std::wstring encoded(const std::wstring& name) {
    return std::wstring(fromUTF8(percentEncode(toUTF8(WS(name)))).view());
}

// The moved locator: the destination's place and names, then the names of
// `from` below the rule's source, written in the form `from` was.
WS write(const Parsed& from, const Parsed& to, size_t skipped) {
    std::vector<std::wstring> parts = to.parts;
    parts.insert(parts.end(), from.parts.begin() + static_cast<std::ptrdiff_t>(skipped),
                 from.parts.end());
    std::wstring out;
    if (from.url) {
        if (to.kind == Parsed::Unc) {
            out = L"file://" + to.host;
        } else {
            out = from.slashes ? L"file://" + (from.kind == Parsed::Unc ? L"" : from.authority)
                               : L"file:";
            if (to.kind == Parsed::Drive) {
                std::wstring colon = from.kind == Parsed::Drive && !from.driveSpelling.empty()
                                         ? from.driveSpelling
                                         : L":";
                out += L"/" + std::wstring(1, to.drive) + colon;
            }
        }
        for (const std::wstring& part : parts)
            out += L"/" + encoded(part);
        if (parts.empty() && to.kind != Parsed::Drive) out += L"/";
        return WS(out);
    }
    wchar_t sep = to.kind == Parsed::Posix ? L'/' : to.separator;
    switch (to.kind) {
        case Parsed::Posix:
            break;
        case Parsed::Drive:
            out = std::wstring(1, to.drive) + L":";
            break;
        case Parsed::Unc:
            out = std::wstring(2, sep) + to.host;
            break;
        case Parsed::None:
            return WS();
    }
    for (const std::wstring& part : parts)
        out += std::wstring(1, sep) + part;
    if (parts.empty()) out += std::wstring(1, sep);
    return WS(out);
}

std::mutex& mapMutex() {
    static std::mutex* m = new std::mutex;
    return *m;
}
std::shared_ptr<const PathMap>& currentMap() {
    static auto* map = new std::shared_ptr<const PathMap>;
    return *map;
}

}  // namespace

bool PathMap::parseRule(const std::string& text, PathRule& rule, std::string& why) {
    size_t eq = text.find('=');
    if (eq == std::string::npos || eq == 0 || eq + 1 == text.size()) {
        why = "--map-path wants FROM=TO, two folders, not \"" + text + "\"";
        return false;
    }
    rule.from = fromUTF8(text.substr(0, eq).c_str());
    rule.to = fromUTF8(text.substr(eq + 1).c_str());
    for (const WS* side : {&rule.from, &rule.to}) {
        if (parse(*side).kind == Parsed::None) {
            why = "\"" + toUTF8(*side).str() +
                  "\" is no folder a locator can name: give an absolute path, a drive (D:\\), "
                  "a UNC name (\\\\server\\share) or a file:// URL";
            return false;
        }
    }
    return true;
}

WS PathMap::apply(const WS& locator) const {
    if (rules_.empty() || locator.empty()) return locator;
    Parsed here = parse(locator);
    if (here.kind == Parsed::None) return locator;
    for (const PathRule& rule : rules_) {
        Parsed from = parse(rule.from), to = parse(rule.to);
        if (!holds(from, here)) continue;
        // Mapped once already: the destination lies inside the source, and
        // the locator inside the destination.
        if (holds(from, to) && holds(to, here)) return locator;
        WS moved = write(here, to, from.parts.size());
        return moved.empty() ? locator : moved;
    }
    return locator;
}

void setLocatorMap(const PathMap& map) {
    auto made = std::make_shared<const PathMap>(map);
    std::lock_guard<std::mutex> lock(mapMutex());
    currentMap() = std::move(made);
}

std::shared_ptr<const PathMap> locatorMap() {
    std::lock_guard<std::mutex> lock(mapMutex());
    return currentMap();
}
