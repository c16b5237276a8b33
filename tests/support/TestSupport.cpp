#include "tests/support/TestSupport.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace qvtest {

namespace {
void removeTree(const std::string& path) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) return;
    if (S_ISDIR(st.st_mode)) {
        if (DIR* d = ::opendir(path.c_str())) {
            while (dirent* e = ::readdir(d)) {
                std::string name = e->d_name;
                if (name != "." && name != "..") removeTree(path + "/" + name);
            }
            ::closedir(d);
        }
        ::rmdir(path.c_str());
    } else {
        ::unlink(path.c_str());
    }
}
}  // namespace

TempDir::TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/qvxml-test-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    char* made = ::mkdtemp(buf.data());
    path_ = made ? made : "";
}

TempDir::~TempDir() {
    if (!path_.empty()) removeTree(path_);
}

std::string withoutHeadComment(const std::string& document) {
    std::size_t declaration = document.find("?>");
    if (declaration == std::string::npos) return document;
    std::size_t open = document.find("<!--", declaration);
    std::size_t close = document.find("-->", open == std::string::npos ? 0 : open);
    if (open == std::string::npos || close == std::string::npos ||
        document.find_first_not_of(" \n", declaration + 2) != open)
        return document;
    std::size_t end = close + 3;
    if (end < document.size() && document[end] == '\n') ++end;
    return document.substr(0, open) + document.substr(end);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

bool onCi() {
    const char* ci = std::getenv("CI");
    return ci && std::string(ci) == "true";
}

bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

std::vector<std::string> listDirectory(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (dirent* e = ::readdir(d)) {
            std::string name = e->d_name;
            if (name != "." && name != "..") names.push_back(name);
        }
        ::closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

XML::ImportResult importFile(const std::string& path, LoggerHandle log) {
    ImportFileList files;
    files.push_back(Qv::Ptr<ImportFileInfoRep>(new ImportFileInfoRep({fromUTF8(path.c_str())})));
    return XML::XMLImportFiles(files, log);
}

std::string shellQuote(const std::string& s) {
    std::string out = "'";
    for (char c : s)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

nlohmann::json scriptReading(const std::string& command) {
    std::string out;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        char buffer[65536];
        size_t n;
        while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
            out.append(buffer, n);
        ::pclose(pipe);
    }
    nlohmann::json parsed = nlohmann::json::parse(out, nullptr, false);
    if (parsed.is_discarded()) ADD_FAILURE() << "the Python reading said: " << out;
    return parsed;
}

Qv::Ptr<Edit> addShot(EditStore& store, const std::wstring& name, double rate, double length,
                      std::vector<ChannelSpec> channels, const std::wstring& mediaPath) {
    Cookie id = store.newEditCookie();
    Qv::Ptr<Edit> e(new Edit(id));
    e->name = name.c_str();
    e->logType = kLogTypeShot;
    e->rate = rate;
    e->frameRate = Qv::getEquivalentQvFrameRate(rate);
    e->length = length;
    e->mediaPath = mediaPath.c_str();
    unsigned index = 0;
    for (const ChannelSpec& spec : channels) {
        StoredChannel ch;
        ch.index = index;
        ch.type = spec.type;
        ch.name = spec.name;
        CelData cel;
        cel.cookie = convertCookie(e->cookie, spec.type == kChanVideo ? kCookieVideo : kCookieSound,
                                   static_cast<unsigned char>(index));
        cel.editOut = cel.sourceOut = length;
        ch.cels.push_back(cel);
        e->channels.push_back(ch);
        ++index;
    }
    store.add(e);
    return e;
}

Qv::Ptr<Edit> addSequence(EditStore& store, const std::wstring& name, Qv::FrameRate rate,
                          std::vector<ChannelSpec> channels) {
    Cookie id = store.newEditCookie();
    Qv::Ptr<Edit> e(new Edit(id));
    e->name = name.c_str();
    e->logType = kLogTypeSequence;
    e->frameRate = rate;
    e->rate = Qv::getFramesPerSecond(rate);
    unsigned index = 0;
    for (const ChannelSpec& spec : channels) {
        StoredChannel ch;
        ch.index = index++;
        ch.type = spec.type;
        ch.name = spec.name;
        e->channels.push_back(ch);
    }
    store.add(e);
    return e;
}

Qv::Ptr<Edit> addSubclip(EditStore& store, const std::wstring& name, const Qv::Ptr<Edit>& shot,
                         double in, double length) {
    Cookie id = store.newEditCookie();
    Qv::Ptr<Edit> e(new Edit(id));
    e->name = name.c_str();
    e->logType = kLogTypeSubclip;
    e->rate = shot->rate;
    e->frameRate = shot->frameRate;
    e->length = length;
    for (const StoredChannel& sc : shot->channels) {
        StoredChannel ch;
        ch.index = sc.index;
        ch.type = sc.type;
        ch.name = sc.name;
        CelData cel;
        cel.cookie = playCookie(shot, sc.index);
        cel.editOut = length;
        cel.sourceIn = in;
        cel.sourceOut = in + length;
        ch.cels.push_back(cel);
        e->channels.push_back(ch);
    }
    store.add(e);
    return e;
}

Cookie playCookie(const Qv::Ptr<Edit>& source, unsigned index) {
    const StoredChannel* ch = source->findChannel(index);
    EditChanType type = ch ? ch->type : kChanVideo;
    CookieType t =
        source->isShot() ? (type == kChanVideo ? kCookieVideo : kCookieSound) : kCookieEdit;
    return convertCookie(source->cookie, t, static_cast<unsigned char>(index));
}

CelData& addCel(const Qv::Ptr<Edit>& seq, unsigned channel, const Cookie& cookie, double editIn,
                double editOut, double sourceIn, float speed) {
    CelData cel;
    cel.cookie = cookie;
    cel.editIn = editIn;
    cel.editOut = editOut;
    cel.sourceIn = sourceIn;
    cel.sourceOut = sourceIn + (editOut - editIn) * speed;
    cel.speed = speed;
    for (StoredChannel& ch : seq->channels) {
        if (ch.index == channel) {
            ch.cels.push_back(cel);
            return ch.cels.back();
        }
    }
    ADD_FAILURE() << "no channel " << channel;
    static CelData none;
    return none;
}

}  // namespace qvtest
