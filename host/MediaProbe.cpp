// Probing media files with FFmpeg's libavformat.
//
// FFmpeg and the hundred-odd libraries it brings are loaded on the first
// probe, not when the process starts: a run that reads no media (a version
// query, a document whose media is offline) never maps them. Only the few
// functions below are taken from them; the headers give their types and the
// layout of the structures read.
//
// A probe reads one regular file through a reader of our own: it never opens
// a FIFO, a device or a folder, never lets a demuxer open another file, and
// stops at a budget of bytes and a deadline, so that no file (a sparse or
// zero-filled one left by a copy that never finished, a damaged one) can make
// it read for long.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <type_traits>

#include "host/Media.h"
#include "host/Paths.h"

extern "C" {
#include <libavcodec/version.h>
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

namespace {

const char* const kNotMedia = "not a media file that can be read";

// The functions of FFmpeg that probing uses, from the libraries of the major
// versions this was built against (their sonames carry the major version, so
// the structures' layout is the one the headers describe).
struct FFmpeg {
    decltype(&::av_log_set_level) logSetLevel = nullptr;
    decltype(&::av_dict_get) dictGet = nullptr;
    decltype(&::av_malloc) malloc = nullptr;
    decltype(&::av_free) free = nullptr;
    decltype(&::avio_alloc_context) ioAllocContext = nullptr;
    decltype(&::avio_context_free) ioContextFree = nullptr;
    decltype(&::avformat_alloc_context) allocContext = nullptr;
    decltype(&::avformat_open_input) openInput = nullptr;
    decltype(&::avformat_find_stream_info) findStreamInfo = nullptr;
    decltype(&::avformat_close_input) closeInput = nullptr;
    decltype(&::av_guess_frame_rate) guessFrameRate = nullptr;
    // Why the libraries could not be loaded; empty when they were.
    std::string failure;
};

#define QV_SONAME(lib, major) "lib" lib ".so." AV_STRINGIFY(major)

// Set once the libraries were looked for, whatever came of it.
std::atomic<const FFmpeg*> loaded{nullptr};

const FFmpeg& ffmpeg() {
    static FFmpeg f;
    static std::once_flag once;
    std::call_once(once, [] {
        struct Publish {
            ~Publish() { loaded.store(&f, std::memory_order_release); }
        } publish;
        const char* names[] = {QV_SONAME("avutil", LIBAVUTIL_VERSION_MAJOR),
                               QV_SONAME("avcodec", LIBAVCODEC_VERSION_MAJOR),
                               QV_SONAME("avformat", LIBAVFORMAT_VERSION_MAJOR)};
        // $QVXML_FFMPEG_DIR names a folder to load them from instead of the
        // system's.
        std::string folder;
        if (const char* env = std::getenv("QVXML_FFMPEG_DIR"); env && *env)
            folder = std::string(env) + "/";
        void* handles[3] = {};
        for (int i = 0; i < 3; ++i) {
            // Never closed: the libraries stay for the life of the process.
            handles[i] = ::dlopen((folder + names[i]).c_str(), RTLD_NOW | RTLD_LOCAL);
            if (!handles[i]) {
                const char* why = ::dlerror();
                f.failure = why ? why : names[i];
                return;
            }
        }
        void* avutil = handles[0];
        void* avformat = handles[2];
        bool all = true;
        auto take = [&](auto& slot, void* lib, const char* name) {
            slot = reinterpret_cast<std::remove_reference_t<decltype(slot)>>(::dlsym(lib, name));
            if (!slot && all) {
                all = false;
                f.failure = std::string(name) + " is missing from FFmpeg's libraries";
            }
        };
        take(f.logSetLevel, avutil, "av_log_set_level");
        take(f.dictGet, avutil, "av_dict_get");
        take(f.malloc, avutil, "av_malloc");
        take(f.free, avutil, "av_free");
        take(f.ioAllocContext, avformat, "avio_alloc_context");
        take(f.ioContextFree, avformat, "avio_context_free");
        take(f.allocContext, avformat, "avformat_alloc_context");
        take(f.openInput, avformat, "avformat_open_input");
        take(f.findStreamInfo, avformat, "avformat_find_stream_info");
        take(f.closeInput, avformat, "avformat_close_input");
        take(f.guessFrameRate, avformat, "av_guess_frame_rate");
        if (!all) return;
        // FFmpeg prints to the terminal by default; the importer reports itself.
        f.logSetLevel(AV_LOG_QUIET);
    });
    return f;
}

std::atomic<bool> unavailableSaid{false};

double seconds(int64_t value, AVRational base) {
    if (value == AV_NOPTS_VALUE || value <= 0 || base.den == 0) return 0;
    return static_cast<double>(value) * av_q2d(base);
}

LightweightString<char> tag(const FFmpeg& av, AVDictionary* dict, const char* key) {
    AVDictionaryEntry* e = av.dictGet(dict, key, nullptr, 0);
    return e && e->value ? LightweightString<char>(e->value) : LightweightString<char>();
}

// What a file that is not a regular one is, for the sentence that passes it
// over.
const char* kindOf(mode_t mode) {
    if (S_ISDIR(mode)) return "it is a folder, not a media file";
    if (S_ISFIFO(mode)) return "it is a pipe (FIFO), not a media file";
    if (S_ISCHR(mode) || S_ISBLK(mode)) return "it is a device, not a media file";
    if (S_ISSOCK(mode)) return "it is a socket, not a media file";
    return "it is not a regular file";
}

// A file whose first megabytes are all zeros holds no media: it is the
// preallocated space of a copy that never finished, or a sparse file. It is
// passed over without reading further; the holes of a sparse file are not
// read at all.
constexpr std::int64_t kZeroSpan = 4 << 20;

bool beginsWithZerosOnly(int fd, std::int64_t size) {
    std::int64_t span = std::min(size, kZeroSpan);
    off_t data = ::lseek(fd, 0, SEEK_DATA);
    if (data < 0 && errno == ENXIO) return true;  // holes to the end
    if (data >= span) return true;
    static thread_local char buffer[64 << 10];
    for (std::int64_t at = 0; at < span;) {
        ssize_t n = ::pread(
            fd, buffer, static_cast<size_t>(std::min<std::int64_t>(sizeof buffer, span - at)), at);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;  // let the probe meet the error
        for (ssize_t i = 0; i < n; ++i)
            if (buffer[i] != 0) return false;
        at += n;
    }
    return true;
}

// The file as FFmpeg reads it. A probe needs the headers and a few seconds of
// packets; whatever it asks beyond the budget reads as the end of the file,
// and past the deadline the probe is interrupted.
constexpr std::int64_t kReadBudget = std::int64_t(64) << 20;
constexpr auto kDeadline = std::chrono::seconds(20);
constexpr int kBufferSize = 32768;

struct Source {
    int fd = -1;
    std::int64_t size = 0;
    std::int64_t position = 0;
    std::int64_t delivered = 0;
    std::chrono::steady_clock::time_point deadline;

    bool expired() const { return std::chrono::steady_clock::now() >= deadline; }

    static int read(void* opaque, uint8_t* buf, int want) {
        Source& s = *static_cast<Source*>(opaque);
        if (s.expired()) return AVERROR_EXIT;
        if (want <= 0) return 0;
        std::int64_t left = kReadBudget - s.delivered;
        if (left <= 0) return AVERROR_EOF;
        size_t count = static_cast<size_t>(std::min<std::int64_t>(want, left));
        ssize_t n;
        do {
            n = ::pread(s.fd, buf, count, s.position);
        } while (n < 0 && errno == EINTR);
        if (n < 0) return AVERROR(errno);
        if (n == 0) return AVERROR_EOF;
        s.position += n;
        s.delivered += n;
        return static_cast<int>(n);
    }

    static int64_t seek(void* opaque, int64_t offset, int whence) {
        Source& s = *static_cast<Source*>(opaque);
        whence &= ~AVSEEK_FORCE;
        if (whence == AVSEEK_SIZE) return s.size;
        std::int64_t base = whence == SEEK_SET   ? 0
                            : whence == SEEK_CUR ? s.position
                            : whence == SEEK_END ? s.size
                                                 : -1;
        std::int64_t target = 0;
        if (base < 0 || __builtin_add_overflow(base, offset, &target) || target < 0)
            return AVERROR(EINVAL);
        s.position = target;
        return target;
    }

    static int interrupt(void* opaque) { return static_cast<Source*>(opaque)->expired() ? 1 : 0; }
};

// Nested files (a playlist's segments, a reference to other media) are not
// opened: a probe reads the one file it was given.
int refuseNestedOpen(AVFormatContext*, AVIOContext**, const char*, int, AVDictionary**) {
    return AVERROR(EPERM);
}

// Owns what a probe opened, and closes it on every path.
struct Opened {
    const FFmpeg& av;
    int fd = -1;
    AVIOContext* io = nullptr;
    AVFormatContext* context = nullptr;
    explicit Opened(const FFmpeg& f) : av(f) {}
    ~Opened() {
        if (context) av.closeInput(&context);
        if (io) {
            // FFmpeg may have replaced the buffer it was given.
            av.free(io->buffer);
            io->buffer = nullptr;
            av.ioContextFree(&io);
        }
        if (fd >= 0) ::close(fd);
    }
};

// Opens a path that must name a regular file, without blocking on a FIFO
// and without opening a device: the file is looked at before it is opened,
// and what was opened is looked at again.
int openRegular(const std::string& file, struct stat& st, const char*& why) {
    why = kNotMedia;
    if (file.empty() || file.find('\0') != std::string::npos) return -1;
    if (::stat(file.c_str(), &st) != 0) return -1;
    if (!S_ISREG(st.st_mode)) {
        why = kindOf(st.st_mode);
        return -1;
    }
    int fd = ::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return -1;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        if (!S_ISREG(st.st_mode)) why = kindOf(st.st_mode);
        ::close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

LightweightString<char> takeMediaProbingUnavailable() {
    const FFmpeg* av = loaded.load(std::memory_order_acquire);
    if (!av || av->failure.empty() || unavailableSaid.exchange(true)) return {};
    return LightweightString<char>(
        ("no media file can be read: FFmpeg's libraries cannot be loaded (" + av->failure + ")")
            .c_str());
}

MediaProbe probeMediaFile(const LightweightString<wchar_t>& path) {
    MediaProbe probe;
    std::string file = pathBytes(path);
    struct stat st;
    const char* why = kNotMedia;
    int fd = openRegular(file, st, why);
    if (fd < 0) {
        probe.error = why;
        return probe;
    }
    std::int64_t size = st.st_size;
    if (size > 0 && beginsWithZerosOnly(fd, size)) {
        ::close(fd);
        probe.error = size <= kZeroSpan ? "it holds nothing but zeros"
                                        : "its first 4 MB hold nothing but zeros";
        return probe;
    }
    const FFmpeg& av = ffmpeg();
    if (!av.failure.empty()) {
        ::close(fd);
        probe.error = kNotMedia;
        return probe;
    }

    Opened opened(av);
    opened.fd = fd;
    Source source;
    source.fd = fd;
    source.size = size;
    source.deadline = std::chrono::steady_clock::now() + kDeadline;
    auto* buffer = static_cast<unsigned char*>(av.malloc(kBufferSize));
    if (!buffer) {
        probe.error = kNotMedia;
        return probe;
    }
    opened.io =
        av.ioAllocContext(buffer, kBufferSize, 0, &source, &Source::read, nullptr, &Source::seek);
    if (!opened.io) {
        av.free(buffer);
        probe.error = kNotMedia;
        return probe;
    }
    AVFormatContext* context = av.allocContext();
    if (!context) {
        probe.error = kNotMedia;
        return probe;
    }
    context->pb = opened.io;
    context->interrupt_callback.callback = &Source::interrupt;
    context->interrupt_callback.opaque = &source;
    context->io_open = &refuseNestedOpen;
    // FFmpeg's own bounds, said out loud: 5 MB of packets at most; the
    // analysis lasts each format's default (5 s of media, 7 s for MPEG
    // streams, 90 s for FLV).
    context->probesize = 5000000;
    context->max_analyze_duration = 0;
    // The name is given for what its extension says of the format; the
    // bytes come from the file opened above.
    if (av.openInput(&context, file.c_str(), nullptr, nullptr) != 0) {
        // A context that failed to open was freed.
        probe.error = kNotMedia;
        return probe;
    }
    opened.context = context;
    // Plain text opens as a "teletype" picture; that is no media.
    if (context->iformat && std::strcmp(context->iformat->name, "tty") == 0) {
        probe.error = kNotMedia;
        return probe;
    }
    if (av.findStreamInfo(context, nullptr) < 0) {
        probe.error = "its streams cannot be read";
        return probe;
    }

    double streamDuration = 0;
    for (unsigned i = 0; i < context->nb_streams; ++i) {
        AVStream* st = context->streams[i];
        AVCodecParameters* par = st->codecpar;
        if (par->codec_type == AVMEDIA_TYPE_VIDEO &&
            !(st->disposition & AV_DISPOSITION_ATTACHED_PIC)) {
            if (probe.hasVideo) continue;  // the first picture stream is the shot's
            probe.hasVideo = true;
            probe.width = par->width;
            probe.height = par->height;
            AVRational r = av.guessFrameRate(context, st, nullptr);
            if (r.num > 0 && r.den > 0) probe.frameRate = av_q2d(r);
            switch (par->field_order) {
                case AV_FIELD_TT:
                case AV_FIELD_TB:
                    probe.scan = Qv::Image::eScanInterlacedUpper;
                    break;
                case AV_FIELD_BB:
                case AV_FIELD_BT:
                    probe.scan = Qv::Image::eScanInterlacedLower;
                    break;
                default:
                    probe.scan = Qv::Image::eScanProgressive;
                    break;
            }
            AVRational sar = par->sample_aspect_ratio;
            if (sar.num > 0 && sar.den > 0 && sar.num != sar.den && par->height > 0) {
                double display = static_cast<double>(par->width) * sar.num / sar.den / par->height;
                probe.aspect = display > 1.5 ? Qv::Image::eAspect16x9 : Qv::Image::eAspect4x3;
            }
            streamDuration = std::max(streamDuration, seconds(st->duration, st->time_base));
            if (probe.timecode.empty()) probe.timecode = tag(av, st->metadata, "timecode");
            if (probe.reel.empty()) probe.reel = tag(av, st->metadata, "reel_name");
        } else if (par->codec_type == AVMEDIA_TYPE_AUDIO) {
            probe.audioChannels += std::max(1, par->ch_layout.nb_channels);
            if (probe.sampleRate == 0) probe.sampleRate = par->sample_rate;
            streamDuration = std::max(streamDuration, seconds(st->duration, st->time_base));
            if (probe.timecode.empty()) probe.timecode = tag(av, st->metadata, "timecode");
        } else if (par->codec_type == AVMEDIA_TYPE_DATA && probe.timecode.empty()) {
            probe.timecode = tag(av, st->metadata, "timecode");
        }
    }
    if (probe.timecode.empty()) probe.timecode = tag(av, context->metadata, "timecode");
    if (probe.reel.empty()) probe.reel = tag(av, context->metadata, "reel_name");
    probe.duration = context->duration > 0 && context->duration != AV_NOPTS_VALUE
                         ? static_cast<double>(context->duration) / AV_TIME_BASE
                         : streamDuration;

    if (!probe.hasVideo && probe.audioChannels == 0) {
        probe.error = "it holds no pictures and no sound";
        return probe;
    }
    probe.ok = true;
    return probe;
}
