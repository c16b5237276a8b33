// JSON as OpenTimelineIO writes and reads it.
//
// JsonWriter streams indented JSON into a string, in the layout OpenTimelineIO
// itself writes (four spaces, empty containers as {} and [], doubles always
// with a decimal point or exponent). BlockInput hands a file to nlohmann's
// parser a block at a time with nothing in between; OtioInput does the same
// and also passes the values OpenTimelineIO allows beyond plain JSON (NaN,
// Inf, Infinity, -Inf, -Infinity) on as marked strings, for the documents
// that hold them.
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

// The types an input iterator of characters declares, for nlohmann's parser.
struct CharInputIterator {
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;
};

// Reads a file a block at a time, as the input iterator nlohmann's parser
// takes: the iterator is a pointer into the block, which is refilled when the
// pointer reaches its end, so the parser pays one comparison a byte. The
// indentation that makes up most of a written document never reaches the
// parser: outside strings, a run of white space is dropped after a character
// that ends a token, and is one space elsewhere, which the parser reads alike.
// Positions in the parser's messages are then not the file's: a document
// whose JSON fails (NaN or Infinity outside its strings among the reasons) is
// read again with OtioInput, which tells them right.
class BlockInput {
  public:
    explicit BlockInput(std::FILE* file) : file_(file), buffer_(kBlock) {}

    class iterator : public CharInputIterator {
      public:
        iterator() = default;
        const char& operator*() const { return *at_; }
        iterator& operator++() {
            if (++at_ == limit_) input_->fill(at_, limit_);
            return *this;
        }
        // The end is the null pointer that an exhausted input leaves.
        bool operator==(const iterator& o) const { return at_ == o.at_; }
        bool operator!=(const iterator& o) const { return at_ != o.at_; }

      private:
        friend class BlockInput;
        const char* at_ = nullptr;
        const char* limit_ = nullptr;
        BlockInput* input_ = nullptr;
    };

    iterator begin() {
        iterator it;
        it.input_ = this;
        fill(it.at_, it.limit_);
        return it;
    }
    iterator end() { return iterator(); }
    bool readError() const { return readError_; }

  private:
    static constexpr std::size_t kBlock = 1 << 18;
    void fill(const char*& at, const char*& limit);
    // Drops white space from the block's first `n` bytes; answers how many
    // are left.
    std::size_t squeeze(std::size_t n);

    std::FILE* file_;
    std::vector<char> buffer_;
    bool readError_ = false;
    bool inString_ = false, escaped_ = false;
    char last_ = ' ';  // the last byte passed on outside a string
};

// The prefix of the strings that stand for NaN and the infinities on input.
inline constexpr char kSpecialNumberMark = '\x01';

// Reads a file a block at a time, as the input iterator nlohmann's parser
// takes. Outside strings, the words NaN, Inf, Infinity, -Inf and -Infinity
// come through as the JSON strings "\u0001NaN", "\u0001Inf" and "\u0001-Inf".
class OtioInput {
  public:
    explicit OtioInput(std::FILE* file);

    class iterator : public CharInputIterator {
      public:
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
        ++consumed_;
        pass(buffer_[pos_++]);
    }
    // Passes `c` on, following strings and their escapes; outside a string,
    // an N, an I or a minus sign may begin a word to look at.
    void pass(char c) {
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
