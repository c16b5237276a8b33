// Probing media files with FFmpeg's libavformat.
#include <cmath>
#include <cstring>
#include <mutex>

#include "host/Media.h"
#include "host/Paths.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

namespace {

// FFmpeg prints to the terminal by default; the importer reports itself.
void quietFFmpeg() {
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_level(AV_LOG_QUIET); });
}

double seconds(int64_t value, AVRational base) {
    if (value == AV_NOPTS_VALUE || value <= 0 || base.den == 0) return 0;
    return static_cast<double>(value) * av_q2d(base);
}

LightweightString<char> tag(AVDictionary* dict, const char* key) {
    AVDictionaryEntry* e = av_dict_get(dict, key, nullptr, 0);
    return e && e->value ? LightweightString<char>(e->value) : LightweightString<char>();
}

}  // namespace

MediaProbe probeMediaFile(const LightweightString<wchar_t>& path) {
    MediaProbe probe;
    quietFFmpeg();
    AVFormatContext* context = nullptr;
    std::string file = pathBytes(path);
    if (avformat_open_input(&context, file.c_str(), nullptr, nullptr) != 0) {
        probe.error = "not a media file that can be read";
        return probe;
    }
    // Plain text opens as a "teletype" picture; that is no media.
    if (context->iformat && std::strcmp(context->iformat->name, "tty") == 0) {
        avformat_close_input(&context);
        probe.error = "not a media file that can be read";
        return probe;
    }
    if (avformat_find_stream_info(context, nullptr) < 0) {
        avformat_close_input(&context);
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
            AVRational r = av_guess_frame_rate(context, st, nullptr);
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
            if (probe.timecode.empty()) probe.timecode = tag(st->metadata, "timecode");
            if (probe.reel.empty()) probe.reel = tag(st->metadata, "reel_name");
        } else if (par->codec_type == AVMEDIA_TYPE_AUDIO) {
            probe.audioChannels += std::max(1, par->ch_layout.nb_channels);
            if (probe.sampleRate == 0) probe.sampleRate = par->sample_rate;
            streamDuration = std::max(streamDuration, seconds(st->duration, st->time_base));
            if (probe.timecode.empty()) probe.timecode = tag(st->metadata, "timecode");
        } else if (par->codec_type == AVMEDIA_TYPE_DATA && probe.timecode.empty()) {
            probe.timecode = tag(st->metadata, "timecode");
        }
    }
    if (probe.timecode.empty()) probe.timecode = tag(context->metadata, "timecode");
    if (probe.reel.empty()) probe.reel = tag(context->metadata, "reel_name");
    probe.duration = context->duration > 0 && context->duration != AV_NOPTS_VALUE
                         ? static_cast<double>(context->duration) / AV_TIME_BASE
                         : streamDuration;
    avformat_close_input(&context);

    if (!probe.hasVideo && probe.audioChannels == 0) {
        probe.error = "it holds no pictures and no sound";
        return probe;
    }
    probe.ok = true;
    return probe;
}
