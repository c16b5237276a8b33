// The host's string: a counted, copy-on-write string with value behaviour.
//
// LightweightString<char> holds UTF-8; LightweightString<wchar_t> holds 32-bit
// characters. An empty string may have no representation at all ("null");
// readers that care can ask is_null(), but a null and an empty string compare
// equal and behave the same everywhere else.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <cwchar>
#include <functional>
#include <new>
#include <string>
#include <string_view>

#include "host/OSCore.h"

template <typename T>
class LightweightString {
  public:
    using value_type = T;
    using view_type = std::basic_string_view<T>;
    static constexpr std::size_t npos = view_type::npos;

    LightweightString() = default;
    LightweightString(const T* text) {
        if (text) assign(view_type(text));
    }
    LightweightString(const T* text, std::size_t length) { assign(view_type(text, length)); }
    LightweightString(view_type text) { assign(text); }
    LightweightString(const std::basic_string<T>& text) { assign(view_type(text)); }
    LightweightString(std::size_t count, T c) { assign(std::basic_string<T>(count, c)); }

    LightweightString(const LightweightString& o) : rep_(o.rep_) { acquire(); }
    LightweightString(LightweightString&& o) noexcept : rep_(o.rep_) { o.rep_ = nullptr; }
    ~LightweightString() { release(); }
    LightweightString& operator=(const LightweightString& o) {
        LightweightString copy(o);
        swap(copy);
        return *this;
    }
    LightweightString& operator=(LightweightString&& o) noexcept {
        LightweightString moved(std::move(o));
        swap(moved);
        return *this;
    }
    void swap(LightweightString& o) noexcept { std::swap(rep_, o.rep_); }

    bool is_null() const { return rep_ == nullptr; }
    bool empty() const { return size() == 0; }
    bool isEmpty() const { return empty(); }
    std::size_t size() const { return rep_ ? rep_->text.size() : 0; }
    std::size_t length() const { return size(); }
    const T* c_str() const { return rep_ ? rep_->text.c_str() : emptyText(); }
    const T* data() const { return c_str(); }
    view_type view() const { return view_type(c_str(), size()); }
    std::basic_string<T> str() const { return std::basic_string<T>(view()); }
    operator view_type() const { return view(); }

    T operator[](std::size_t i) const { return c_str()[i]; }
    T back() const { return empty() ? T() : c_str()[size() - 1]; }

    std::size_t find(view_type what, std::size_t pos = 0) const { return view().find(what, pos); }
    std::size_t find(T c, std::size_t pos = 0) const { return view().find(c, pos); }
    std::size_t rfind(view_type what, std::size_t pos = npos) const {
        return view().rfind(what, pos);
    }
    std::size_t rfind(T c, std::size_t pos = npos) const { return view().rfind(c, pos); }
    bool startsWith(view_type what) const { return view().starts_with(what); }
    bool endsWith(view_type what) const { return view().ends_with(what); }
    LightweightString substr(std::size_t pos, std::size_t count = npos) const {
        if (pos >= size()) return LightweightString();
        return LightweightString(view().substr(pos, count));
    }

    LightweightString& operator+=(view_type more) {
        if (more.empty()) return *this;
        // A text that no other string shares grows in place.
        if (rep_ && __atomic_load_n(&rep_->refs, __ATOMIC_ACQUIRE) == 1) {
            rep_->text.append(more);
            return *this;
        }
        adopt(joined(view(), more));
        return *this;
    }
    LightweightString& operator+=(const LightweightString& more) { return *this += more.view(); }
    LightweightString& operator+=(const T* more) {
        return *this += view_type(more ? more : emptyText());
    }
    LightweightString& operator+=(T c) { return *this += view_type(&c, 1); }

    // Replaces every character in place; used for case changes.
    template <typename F>
    void transform(F f) {
        if (empty()) return;
        std::basic_string<T> text(view());
        std::transform(text.begin(), text.end(), text.begin(), f);
        assign(text);
    }

    friend bool operator==(const LightweightString& a, const LightweightString& b) {
        return a.view() == b.view();
    }
    friend bool operator==(const LightweightString& a, const T* b) {
        return a.view() == view_type(b ? b : emptyText());
    }
    friend bool operator<(const LightweightString& a, const LightweightString& b) {
        return a.view() < b.view();
    }
    friend LightweightString operator+(const LightweightString& a, view_type b) {
        LightweightString r;
        r.adopt(joined(a.view(), b));
        return r;
    }
    friend LightweightString operator+(const LightweightString& a, const LightweightString& b) {
        return a + b.view();
    }
    friend LightweightString operator+(const LightweightString& a, const T* b) {
        return a + view_type(b ? b : emptyText());
    }
    friend LightweightString operator+(const T* a, const LightweightString& b) {
        LightweightString r(a);
        r += b;
        return r;
    }

  private:
    struct Rep {
        int refs;
        std::basic_string<T> text;
    };

    static const T* emptyText() {
        static const T zero[1] = {T()};
        return zero;
    }
    void assign(view_type text) {
        release();
        if (text.empty()) return;
        void* block = QvOS::allocate(sizeof(Rep));
        rep_ = new (block) Rep{1, std::basic_string<T>(text)};
    }
    static std::basic_string<T> joined(view_type a, view_type b) {
        std::basic_string<T> text;
        text.reserve(a.size() + b.size());
        text.append(a);
        text.append(b);
        return text;
    }
    // Takes `text` as its own, without a copy.
    void adopt(std::basic_string<T>&& text) {
        release();
        if (text.empty()) return;
        void* block = QvOS::allocate(sizeof(Rep));
        rep_ = new (block) Rep{1, std::move(text)};
    }
    void acquire() {
        if (rep_) QvOS::atomicIncrement(&rep_->refs);
    }
    void release() {
        if (rep_ && QvOS::atomicDecrement(&rep_->refs) == 0) {
            rep_->~Rep();
            QvOS::free(rep_);
        }
        rep_ = nullptr;
    }

    Rep* rep_ = nullptr;
};

using WString = LightweightString<wchar_t>;
using NString = LightweightString<char>;

// A wide string grows by a narrow one taken as ASCII (as the host does when it
// appends numbers printed with sprintf).
inline LightweightString<wchar_t>& operator+=(LightweightString<wchar_t>& a,
                                              const LightweightString<char>& b) {
    std::wstring more;
    for (char c : b.view())
        more.push_back(static_cast<wchar_t>(static_cast<unsigned char>(c)));
    return a += std::wstring_view(more);
}

// UTF-8 and 32-bit text. Malformed UTF-8 becomes U+FFFD per bad byte; code
// points that UTF-8 cannot carry become U+FFFD too.
LightweightString<char> toUTF8(const LightweightString<wchar_t>& text);
// Appends one code point as UTF-8 (U+FFFD for one it cannot carry).
void appendUTF8(std::string& out, char32_t c);
// Appends 32-bit text as UTF-8, as toUTF8 makes it.
void appendUTF8(std::string& out, std::wstring_view text);
LightweightString<char> toUTF8(std::wstring_view text);
LightweightString<wchar_t> fromUTF8(const LightweightString<char>& text);
LightweightString<wchar_t> fromUTF8(const char* text, int length = -1);

namespace Qv {
LightweightString<wchar_t> WStringFromAscii(const char* text);
LightweightString<wchar_t> WStringFromInteger(long value);
void toUpper(LightweightString<wchar_t>& text);
}  // namespace Qv

template <typename T>
struct std::hash<LightweightString<T>> {
    std::size_t operator()(const LightweightString<T>& s) const noexcept {
        return std::hash<std::basic_string_view<T>>()(s.view());
    }
};
