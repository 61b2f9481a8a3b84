// Internal: locale-independent number text and buffered file access shared by the
// file formats.  Numbers go through std::to_chars / std::from_chars, which never
// look at the process locale, so a program that set a comma-decimal locale still
// reads and writes "1.5".
#ifndef NODARA_SRC_IO_TEXT_H
#define NODARA_SRC_IO_TEXT_H

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <system_error>

namespace zq5 {
namespace nodara {
namespace detail {

// ---------------------------------------------------------------------------
// Writing.

/// Buffered writer over a stdio stream.  The first failed fwrite sets `failed`;
/// later output is dropped.
class text_writer {
public:
    explicit text_writer(FILE* stream) noexcept : stream_(stream) {}
    text_writer(const text_writer&) = delete;
    text_writer& operator=(const text_writer&) = delete;
    ~text_writer() { flush(); }

    bool failed() const noexcept { return failed_; }

    /// Writes the buffer out; false once any write has failed.
    bool flush() noexcept {
        if (len_ && !failed_ && std::fwrite(buf_, 1, len_, stream_) != len_) failed_ = true;
        len_ = 0;
        return !failed_;
    }
    void raw(const void* data, std::size_t n) noexcept {
        const char* p = static_cast<const char*>(data);
        while (n) {
            if (len_ == sizeof(buf_)) flush();
            std::size_t k = sizeof(buf_) - len_;
            if (k > n) k = n;
            std::memcpy(buf_ + len_, p, k);
            len_ += k;
            p += k;
            n -= k;
        }
    }
    void text(const char* s) noexcept { raw(s, std::strlen(s)); }
    void ch(char c) noexcept {
        if (len_ == sizeof(buf_)) flush();
        buf_[len_++] = c;
    }
    /// As printf "%d" of the value converted to int.
    void integer(long long v) noexcept {
        char* p = room(24);
        len_ += static_cast<std::size_t>(std::to_chars(p, p + 24, v).ptr - p);
    }
    /// As printf "%f".
    void fixed(double v) noexcept {
        char* p = room(kNumber);
        len_ += static_cast<std::size_t>(std::to_chars(p, p + kNumber, v, std::chars_format::fixed, 6).ptr - p);
    }
    /// As printf "%e" (also "%le").
    void scientific(double v) noexcept {
        char* p = room(kNumber);
        len_ += static_cast<std::size_t>(
            std::to_chars(p, p + kNumber, v, std::chars_format::scientific, 6).ptr - p);
    }

private:
    // "%f" of the largest double: 309 digits, the point and 6 decimals, a sign.
    static constexpr std::size_t kNumber = 330;
    char* room(std::size_t n) noexcept {
        if (sizeof(buf_) - len_ < n) flush();
        return buf_ + len_;
    }

    FILE* stream_;
    std::size_t len_ = 0;
    bool failed_ = false;
    char buf_[1 << 16];
};

// ---------------------------------------------------------------------------
// Reading.

/// Line reader with the semantics of fgets on a buffer of `kLine` characters: a
/// line longer than kLine - 1 characters comes out in pieces of kLine - 1.
class line_reader {
public:
    static constexpr std::size_t kLine = 256;

    explicit line_reader(FILE* stream) noexcept : stream_(stream) {}
    line_reader(const line_reader&) = delete;
    line_reader& operator=(const line_reader&) = delete;

    /// Next line (through its '\n' when it has one), NUL-terminated, into `line`;
    /// returns its length.  0 at the end of the file (or on a read error).
    std::size_t next(char (&line)[kLine]) noexcept {
        std::size_t n = 0;
        while (n + 1 < kLine) {
            if (pos_ == len_ && !fill()) break;
            const std::size_t room = kLine - 1 - n;
            const std::size_t avail = len_ - pos_ < room ? len_ - pos_ : room;
            const char* start = buf_ + pos_;
            const void* end = std::memchr(start, '\n', avail);
            const std::size_t take = end ? static_cast<std::size_t>(static_cast<const char*>(end) - start) + 1 : avail;
            std::memcpy(line + n, start, take);
            n += take;
            pos_ += take;
            if (end) break;
        }
        line[n] = '\0';
        return n;
    }

private:
    bool fill() noexcept {
        if (done_) return false;
        len_ = std::fread(buf_, 1, sizeof(buf_), stream_);
        pos_ = 0;
        if (len_ == 0) done_ = true;
        return len_ != 0;
    }

    FILE* stream_;
    std::size_t pos_ = 0, len_ = 0;
    bool done_ = false;
    char buf_[1 << 16];
};

/// ASCII lower case of the first n characters, in place (never the locale's idea
/// of it).
inline void to_lower(char* s, std::size_t n) noexcept {
    for (std::size_t i = 0; i < n; ++i) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        s[i] = static_cast<char>(c | (static_cast<unsigned char>(c - 'A') < 26u ? 0x20 : 0));
    }
}

/// The white space of the C locale.
inline bool is_space(char c) noexcept {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

inline const char* skip_space(const char* p) noexcept {
    while (is_space(*p)) ++p;
    return p;
}

/// Matches `word` at p after optional white space, as a literal of a scanf format
/// does; advances p past it.
inline bool match_word(const char*& p, const char* word) noexcept {
    const char* q = skip_space(p);
    const std::size_t n = std::strlen(word);
    if (std::strncmp(q, word, n) != 0) return false;
    p = q + n;
    return true;
}

/// Reads a floating-point number as scanf "%lg" does in the C locale: optional
/// white space, an optional sign, then a decimal or hexadecimal ("0x") number,
/// "inf", "infinity" or "nan".  A value beyond the range of double becomes an
/// infinity, one below it a zero, of the number's sign.  Advances p past the
/// number; false, p unchanged, when there is none.
inline bool parse_double(const char*& p, double& value) noexcept {
    const char* q = skip_space(p);
    bool negative = false;
    if (*q == '+' || *q == '-') {
        negative = *q == '-';
        ++q;
        if (*q == '+' || *q == '-') return false;
    }
    const char* end = q + std::strlen(q);
    std::from_chars_result r{};
    double v = 0.0;
    bool hex = false;
    // A hexadecimal number needs a hexadecimal digit after "0x" ("0x-1" and "0xinf"
    // read as the number 0 followed by text, as strtod reads them).
    const auto hex_digit = [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    };
    if (q[0] == '0' && (q[1] == 'x' || q[1] == 'X') && (hex_digit(q[2]) || (q[2] == '.' && hex_digit(q[3])))) {
        r = std::from_chars(q + 2, end, v, std::chars_format::hex);
        hex = r.ec != std::errc::invalid_argument;
    }
    if (!hex) r = std::from_chars(q, end, v, std::chars_format::general);
    if (r.ec == std::errc::invalid_argument) return false;
    if (r.ec == std::errc::result_out_of_range) {
        // Overflow or underflow: the exponent's sign tells, or without an exponent
        // the presence of a non-zero digit before the point.
        bool huge = false;
        const char* e = nullptr;
        for (const char* s = hex ? q + 2 : q; s < r.ptr; ++s)
            if (*s == (hex ? 'p' : 'e') || *s == (hex ? 'P' : 'E')) e = s;
        if (e) {
            huge = e[1] != '-';
        } else {
            for (const char* s = hex ? q + 2 : q; s < r.ptr && *s != '.'; ++s)
                if (*s != '0') huge = true;
        }
        v = huge ? std::numeric_limits<double>::infinity() : 0.0;
    }
    value = negative ? -v : v;
    p = r.ptr;
    return true;
}

}  // namespace detail
}  // namespace nodara
}  // namespace zq5

#endif  // NODARA_SRC_IO_TEXT_H
