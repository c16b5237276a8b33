#include "otio/OtioJson.h"

#include <charconv>
#include <cmath>
#include <cstring>

namespace QvOtio {

std::string formatDouble(double value) {
    if (std::isnan(value)) return "NaN";
    if (std::isinf(value)) return value > 0 ? "Infinity" : "-Infinity";
    // As Python and OpenTimelineIO print them: plain digits from 1e-4 up to
    // 1e16, an exponent outside that.
    double magnitude = std::fabs(value);
    bool plain = value == 0 || (magnitude >= 1e-4 && magnitude < 1e16);
    char text[400];
    std::to_chars_result r =
        std::to_chars(text, text + sizeof text, value,
                      plain ? std::chars_format::fixed : std::chars_format::scientific);
    std::string s(text, r.ptr);
    if (s.find_first_of(".e") == std::string::npos) s += ".0";
    return s;
}

void JsonWriter::newline() {
    out_ += '\n';
    out_.append(levels_.size() * 4, ' ');
}

void JsonWriter::beforeItem() {
    if (flush_ && out_.size() >= (1u << 20)) flush_(out_);
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (levels_.empty()) return;
    Level& level = levels_.back();
    if (!level.empty) out_ += ',';
    level.empty = false;
    newline();
}

void JsonWriter::beginObject() {
    beforeItem();
    out_ += '{';
    levels_.push_back({true});
}

void JsonWriter::endObject() {
    bool empty = levels_.back().empty;
    levels_.pop_back();
    if (!empty) newline();
    out_ += '}';
}

void JsonWriter::beginArray() {
    beforeItem();
    out_ += '[';
    levels_.push_back({false});
}

void JsonWriter::endArray() {
    bool empty = levels_.back().empty;
    levels_.pop_back();
    if (!empty) newline();
    out_ += ']';
}

void JsonWriter::key(std::string_view name) {
    beforeItem();
    writeString(name);
    out_ += ": ";
    afterKey_ = true;
}

void JsonWriter::string(std::string_view text) {
    beforeItem();
    writeString(text);
}

namespace {

// The length of the UTF-8 sequence at the start of `s`, 0 where it is none.
std::size_t utf8Length(std::string_view s) {
    auto u = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
    unsigned char c = u(0);
    std::size_t n;
    if (c < 0x80) return 1;
    if (c >= 0xC2 && c <= 0xDF)
        n = 2;
    else if (c >= 0xE0 && c <= 0xEF)
        n = 3;
    else if (c >= 0xF0 && c <= 0xF4)
        n = 4;
    else
        return 0;
    if (s.size() < n) return 0;
    for (std::size_t i = 1; i < n; ++i)
        if ((u(i) & 0xC0) != 0x80) return 0;
    // Overlong forms, surrogates and what lies beyond Unicode.
    if ((c == 0xE0 && u(1) < 0xA0) || (c == 0xED && u(1) >= 0xA0) || (c == 0xF0 && u(1) < 0x90) ||
        (c == 0xF4 && u(1) >= 0x90))
        return 0;
    return n;
}

}  // namespace

void JsonWriter::writeString(std::string_view text) {
    out_ += '"';
    // Runs of characters that need no escape go in whole.
    std::size_t run = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        unsigned char u = static_cast<unsigned char>(c);
        if (u >= 0x80) {
            if (!strict_) continue;
            // Whole UTF-8 characters only; U+FFFD for a byte that is none.
            std::size_t n = utf8Length(text.substr(i));
            if (n > 0) {
                i += n - 1;
                continue;
            }
            out_.append(text.substr(run, i - run));
            out_ += "\xEF\xBF\xBD";
            run = i + 1;
            continue;
        }
        if (u >= 0x20 && c != '"' && c != '\\') continue;
        out_.append(text.substr(run, i - run));
        run = i + 1;
        switch (c) {
            case '"':
                out_ += "\\\"";
                break;
            case '\\':
                out_ += "\\\\";
                break;
            case '\n':
                out_ += "\\n";
                break;
            case '\r':
                out_ += "\\r";
                break;
            case '\t':
                out_ += "\\t";
                break;
            case '\b':
                out_ += "\\b";
                break;
            case '\f':
                out_ += "\\f";
                break;
            default: {
                char esc[8];
                std::snprintf(esc, sizeof esc, "\\u%04x", u);
                out_ += esc;
            }
        }
    }
    out_.append(text.substr(run));
    out_ += '"';
}

void JsonWriter::number(double value) {
    beforeItem();
    out_ += strict_ && !std::isfinite(value) ? "null" : formatDouble(value);
}

void JsonWriter::integer(std::int64_t value) {
    beforeItem();
    out_ += std::to_string(value);
}

void JsonWriter::boolean(bool value) {
    beforeItem();
    out_ += value ? "true" : "false";
}

void JsonWriter::null() {
    beforeItem();
    out_ += "null";
}

void JsonWriter::value(const nlohmann::ordered_json& v) {
    switch (v.type()) {
        case nlohmann::ordered_json::value_t::object:
            beginObject();
            for (auto it = v.begin(); it != v.end(); ++it) {
                key(it.key());
                value(it.value());
            }
            endObject();
            break;
        case nlohmann::ordered_json::value_t::array:
            beginArray();
            for (const auto& item : v)
                value(item);
            endArray();
            break;
        case nlohmann::ordered_json::value_t::string:
            string(v.get_ref<const std::string&>());
            break;
        case nlohmann::ordered_json::value_t::boolean:
            boolean(v.get<bool>());
            break;
        case nlohmann::ordered_json::value_t::number_integer:
            integer(v.get<std::int64_t>());
            break;
        case nlohmann::ordered_json::value_t::number_unsigned:
            beforeItem();
            out_ += std::to_string(v.get<std::uint64_t>());
            break;
        case nlohmann::ordered_json::value_t::number_float:
            number(v.get<double>());
            break;
        default:
            null();
    }
}

// ---- input ----

void BlockInput::fill(const char*& at, const char*& limit) {
    std::size_t n = 0;
    // A block of nothing but white space leaves nothing: read on.
    while (n == 0) {
        n = std::fread(buffer_.data(), 1, buffer_.size(), file_);
        if (n == 0) {
            if (std::ferror(file_)) readError_ = true;
            at = limit = nullptr;
            return;
        }
        n = squeeze(n);
    }
    at = buffer_.data();
    limit = at + n;
}

namespace {

bool isSpace(char c) {
    return c == ' ' || c == '\n' || c == '\r' || c == '\t';
}

// Characters after which no token can go on: white space there separates
// nothing.
bool endsToken(char c) {
    return c == '{' || c == '[' || c == ',' || c == ':' || c == '"' || c == '}' || c == ']';
}

}  // namespace

std::size_t BlockInput::squeeze(std::size_t n) {
    char* out = buffer_.data();
    const char* in = out;
    const char* end = in + n;
    while (in < end) {
        if (inString_) {
            if (escaped_) {
                escaped_ = false;
                *out++ = *in++;
                continue;
            }
            const char* run = in;
            while (in < end && *in != '"' && *in != '\\')
                ++in;
            std::memmove(out, run, static_cast<std::size_t>(in - run));
            out += in - run;
            if (in == end) break;
            if (*in == '\\') {
                escaped_ = true;
            } else {
                inString_ = false;
                last_ = '"';
            }
            *out++ = *in++;
            continue;
        }
        char c = *in;
        if (isSpace(c)) {
            while (in < end && isSpace(*in))
                ++in;
            if (!endsToken(last_)) *out++ = last_ = ' ';
            continue;
        }
        if (c == '"') inString_ = true;
        *out++ = last_ = c;
        ++in;
    }
    return static_cast<std::size_t>(out - buffer_.data());
}

OtioInput::OtioInput(std::FILE* file) : file_(file), buffer_(1 << 16) {
    advance();
}

int OtioInput::rawGet() {
    if (pos_ == size_) {
        if (!file_) return EOF;
        size_ = std::fread(buffer_.data(), 1, buffer_.size(), file_);
        pos_ = 0;
        if (size_ == 0) {
            if (std::ferror(file_)) readError_ = true;
            return EOF;
        }
    }
    ++consumed_;
    return static_cast<unsigned char>(buffer_[pos_++]);
}

int OtioInput::rawPeek() {
    int c = rawGet();
    if (c != EOF) {
        --pos_;
        --consumed_;
    }
    return c;
}

// Reads a word that starts with N, I or -I outside a string; the values that
// OpenTimelineIO allows become marked strings, anything else goes on as read
// so that the parser can say what is wrong with it.
void OtioInput::substitute() {
    std::string word(1, current_);
    for (int c = rawPeek(); (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); c = rawPeek())
        word += static_cast<char>(rawGet());
    const char* as = nullptr;
    if (word == "NaN") {
        as = "NaN";
    } else if (word == "Inf" || word == "Infinity") {
        as = "Inf";
    } else if (word == "-Inf" || word == "-Infinity") {
        as = "-Inf";
    }
    pending_ = as ? std::string("\"\\u0001") + as + "\"" : word;
    pendingPos_ = 1;
    current_ = pending_[0];
}

void OtioInput::advanceSlowly() {
    if (pendingPos_ < pending_.size()) {
        current_ = pending_[pendingPos_++];
        return;
    }
    int c = rawGet();
    if (c == EOF) {
        ended_ = true;
        current_ = 0;
        return;
    }
    pass(static_cast<char>(c));
}

// Outside a string, at an N, an I or a minus sign.
void OtioInput::lookAtWord() {
    if (current_ == '-' && rawPeek() != 'I') return;
    substitute();
}

}  // namespace QvOtio
