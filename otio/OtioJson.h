// JSON as OpenTimelineIO writes and reads it.
//
// JsonWriter streams indented JSON into a string, in the layout OpenTimelineIO
// itself writes (four spaces, empty containers as {} and [], doubles always
// with a decimal point or exponent). OtioInput reads a file for nlohmann's
// parser a block at a time, and passes the values OpenTimelineIO allows beyond
// plain JSON (NaN, Inf, Infinity, -Inf, -Infinity) on as marked strings.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace QvOtio {

// A JSON number as OpenTimelineIO writes it: the shortest text that reads back
// as the same double, with ".0" added to a whole number; NaN, Infinity and
// -Infinity for values that are not finite.
std::string formatDouble(double value);

class JsonWriter {
  public:
    explicit JsonWriter(std::string& out) : out_(out) {}

    void beginObject();
    void endObject();
    void beginArray();
    void endArray();
    void key(std::string_view name);

    void string(std::string_view text);
    void number(double value);
    void integer(std::int64_t value);
    void boolean(bool value);
    void null();
    // A value of nlohmann's, in insertion order.
    void value(const nlohmann::ordered_json& v);

    // From now on: bytes of a string that are no UTF-8 are written as U+FFFD,
    // and a number that is not finite as null, so that the text is JSON.
    void setStrict(bool strict) { strict_ = strict; }

    // Text as it stands, outside the structure (a final newline).
    void raw(std::string_view text) { out_ += text; }
    // Once set, the text written so far is handed over whenever it passes a
    // megabyte, and at flush(); the writer keeps nothing of it.
    void setFlush(std::function<void(std::string&)> flush) { flush_ = std::move(flush); }
    void flush() {
        if (flush_ && !out_.empty()) flush_(out_);
    }

    // key(name) followed by a value.
    void field(std::string_view name, std::string_view text) {
        key(name);
        string(text);
    }
    void field(std::string_view name, const char* text) { field(name, std::string_view(text)); }
    void fieldNumber(std::string_view name, double v) {
        key(name);
        number(v);
    }
    void fieldBool(std::string_view name, bool v) {
        key(name);
        boolean(v);
    }
    void fieldNull(std::string_view name) {
        key(name);
        null();
    }

  private:
    bool strict_ = false;
    // Separator and indentation before a value or key at the current level.
    void beforeItem();
    void writeString(std::string_view text);
    void newline();

    struct Level {
        bool object;
        bool empty = true;
    };
    std::string& out_;
    std::function<void(std::string&)> flush_;
    std::vector<Level> levels_;
    bool afterKey_ = false;
};

// The prefix of the strings that stand for NaN and the infinities on input.
inline constexpr char kSpecialNumberMark = '\x01';

// Reads a file a block at a time, as the input iterator nlohmann's parser
// takes. Outside strings, the words NaN, Inf, Infinity, -Inf and -Infinity
// come through as the JSON strings "\u0001NaN", "\u0001Inf" and "\u0001-Inf".
class OtioInput {
  public:
    explicit OtioInput(std::FILE* file);

    class iterator {
      public:
        using iterator_category = std::input_iterator_tag;
        using value_type = char;
        using difference_type = std::ptrdiff_t;
        using pointer = const char*;
        using reference = const char&;

        iterator() = default;
        explicit iterator(OtioInput* input) : input_(input) {}
        const char& operator*() const { return input_->current_; }
        iterator& operator++() {
            input_->advance();
            return *this;
        }
        // Only comparisons with the end are made.
        bool operator==(const iterator& o) const { return atEnd() == o.atEnd(); }
        bool operator!=(const iterator& o) const { return !(*this == o); }

      private:
        bool atEnd() const { return !input_ || input_->ended_; }
        OtioInput* input_ = nullptr;
    };

    iterator begin() { return iterator(this); }
    iterator end() { return iterator(); }
    // Bytes delivered so far (of the file, not of the substitutions).
    std::uint64_t consumed() const { return consumed_; }
    bool readError() const { return readError_; }

  private:
    friend class iterator;
    // The next character; the common case (a byte of the buffer, no word to
    // look at) stays inline.
    void advance() {
        if (pendingPos_ < pending_.size() || pos_ == size_) {
            advanceSlowly();
            return;
        }
        char c = buffer_[pos_++];
        ++consumed_;
        current_ = c;
        if (inString_) {
            if (escaped_) {
                escaped_ = false;
            } else if (c == '\\') {
                escaped_ = true;
            } else if (c == '"') {
                inString_ = false;
            }
        } else if (c == '"') {
            inString_ = true;
        } else if (c == 'N' || c == 'I' || c == '-') {
            lookAtWord();
        }
    }
    void advanceSlowly();
    void lookAtWord();
    int rawGet();
    int rawPeek();
    void substitute();

    std::FILE* file_;
    std::vector<char> buffer_;
    std::size_t pos_ = 0, size_ = 0;
    std::string pending_;  // substituted text still to deliver
    std::size_t pendingPos_ = 0;
    char current_ = 0;
    bool ended_ = false;
    bool inString_ = false, escaped_ = false;
    bool readError_ = false;
    std::uint64_t consumed_ = 0;
};

}  // namespace QvOtio
