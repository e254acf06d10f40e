#include "comm/string_util.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace comm {
namespace {

const char kWhitespace[] = " \t\r\n";

// Appends one piece, trimmed when asked and not empty.
void add_piece(std::vector<std::string>& out, std::string piece, bool trimPieces) {
    if (trimPieces && !piece.empty())
        trim(piece);
    out.push_back(std::move(piece));
}

}  // namespace

bool is_dir_exist(const std::string& path) {
    if (path.empty())
        return false;
    std::string dir = path;
    if (dir.back() != '/')
        dir += '/';
    DIR* handle = opendir(dir.c_str());
    if (handle == nullptr)
        return false;
    closedir(handle);
    return true;
}

bool make_dir(const std::string& path) {
    // 0600 without the search bit is intended; callers rely on this exact mode.
    return mkdir(path.c_str(), 0600) != -1;
}

std::string get_dir_part(const std::string& path) {
    std::string::size_type pos = path.find_last_of("/\\");
    if (pos == std::string::npos)
        return std::string();
    return path.substr(0, pos + 1);
}

std::string get_file_name(const std::string& path) {
    std::string::size_type pos = path.find_last_of("/\\");
    if (pos == std::string::npos)
        return path;
    return path.substr(pos + 1);
}

void trim_left(std::string& s) {
    if (s.empty())
        return;
    std::string::size_type pos = s.find_first_not_of(kWhitespace);
    if (pos == std::string::npos) {
        s.clear();
    } else {
        s.erase(0, pos);
    }
}

void trim_right(std::string& s) {
    if (s.empty())
        return;
    std::string::size_type pos = s.find_last_not_of(kWhitespace);
    if (pos == std::string::npos) {
        s.clear();
    } else {
        s.erase(pos + 1);
    }
}

void trim(std::string& s) {
    if (s.empty())
        return;
    trim_left(s);
    trim_right(s);
}

bool contains(const std::string& s, const char* needle) {
    if (needle == nullptr || *needle == '\0')
        return false;
    return s.find(needle) != std::string::npos;
}

void replace_all(std::string& s, const char* from, const char* to) {
    if (from == nullptr || *from == '\0' || to == nullptr || s.empty())
        return;
    const std::string::size_type fromLength = std::strlen(from);
    const std::string::size_type toLength = std::strlen(to);
    std::string::size_type pos = 0;
    while ((pos = s.find(from, pos, fromLength)) != std::string::npos) {
        s.replace(pos, fromLength, to, toLength);
        // Resume after the inserted text, so a `to` holding `from` cannot loop.
        pos += toLength;
    }
}

bool starts_with(const std::string& s, const std::string& prefix) {
    if (s.empty() || prefix.empty() || prefix.size() > s.size())
        return false;
    return s.compare(0, prefix.size(), prefix) == 0;
}

bool ends_with(const std::string& s, const std::string& suffix) {
    if (s.empty() || suffix.empty() || suffix.size() > s.size())
        return false;
    return s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

void strip_prefix(std::string& s, const std::string& prefix) {
    if (starts_with(s, prefix))
        s.erase(0, prefix.size());
}

void strip_suffix(std::string& s, const std::string& suffix) {
    if (ends_with(s, suffix))
        s.erase(s.size() - suffix.size());
}

std::string int_to_string(int32_t value) {
    char buf[16];
    std::snprintf(buf, sizeof(buf), "%d", static_cast<int>(value));
    return buf;
}

std::string int64_to_string(int64_t value) {
    char buf[32];
    std::snprintf(buf, sizeof(buf), "%lld", static_cast<long long>(value));
    return buf;
}

std::string double_to_string(double value) {
    // The largest double prints 309 integer digits; 400 bytes hold any value.
    char buf[400];
    std::snprintf(buf, sizeof(buf), "%.2f", value);
    return buf;
}

// The strto* forms give what atoi/atoll/atof give, without their undefined
// behaviour on out-of-range text.
int32_t to_int(const std::string& s) {
    return static_cast<int32_t>(std::strtol(s.c_str(), nullptr, 10));
}

int64_t to_int64(const std::string& s) {
    return static_cast<int64_t>(std::strtoll(s.c_str(), nullptr, 10));
}

double to_double(const std::string& s) {
    return std::strtod(s.c_str(), nullptr);
}

bool has_text(const std::string& s) {
    return !s.empty();
}

int32_t parse_int(const char* text) {
    if (text == nullptr)
        return 0;
    // Bytes are read unsigned, as the target's plain char is, so that the result
    // of any input is the same on every host.
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
    bool negative = false;
    if (*p == '-') {
        negative = true;
        ++p;
    }
    // Unsigned arithmetic: the 32-bit magnitude wraps instead of overflowing.
    uint32_t magnitude = 0;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        for (p += 2; *p != '\0'; ++p) {
            uint32_t digit;
            if (*p >= '0' && *p <= '9') {
                digit = *p - '0';
            } else if (*p >= 'a' && *p <= 'f') {
                digit = *p - 'a' + 10;
            } else if (*p >= 'A' && *p <= 'F') {
                digit = *p - 'A' + 10;
            } else {
                continue;  // non-hex characters are skipped
            }
            magnitude = magnitude * 16 + digit;
        }
    } else {
        const uint32_t base = (*p == '0') ? 8 : 10;
        // No validation and no stop at a non-digit: every byte adds (c - '0').
        // Intended; "12a" is 169.
        for (; *p != '\0'; ++p) {
            magnitude = magnitude * base + (static_cast<uint32_t>(*p) - '0');
        }
    }
    if (negative)
        magnitude = 0u - magnitude;
    return static_cast<int32_t>(magnitude);
}

void to_upper(std::string& s) {
    for (char& c : s) {
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    }
}

void to_lower(std::string& s) {
    for (char& c : s) {
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    }
}

void split_by_char(const std::string& text, char delimiter, std::vector<std::string>& out,
                   bool trimPieces) {
    if (text.empty())
        return;
    std::string::size_type start = 0;
    for (;;) {
        std::string::size_type pos = text.find(delimiter, start);
        if (pos == std::string::npos) {
            // The last piece; empty when the text ends with the delimiter.
            add_piece(out, text.substr(start), trimPieces);
            return;
        }
        add_piece(out, text.substr(start, pos - start), trimPieces);
        start = pos + 1;
    }
}

void split_by_string(const std::string& text, const char* delimiter, std::vector<std::string>& out,
                     bool trimPieces) {
    // A null or empty delimiter would match everywhere; the text is one piece.
    const std::string::size_type delimiterLength =
        (delimiter == nullptr) ? 0 : std::strlen(delimiter);
    std::string::size_type start = 0;
    if (delimiterLength > 0) {
        std::string::size_type pos;
        while ((pos = text.find(delimiter, start, delimiterLength)) != std::string::npos) {
            add_piece(out, text.substr(start, pos - start), trimPieces);
            start = pos + delimiterLength;
        }
    }
    // The rest is always added, even when empty.
    add_piece(out, text.substr(start), trimPieces);
}

void parse_key_values(const std::string& text, std::map<std::string, std::string>& out) {
    if (text.empty())
        return;
    std::vector<std::string> lines;
    // CR LF only: text with bare line feeds is read as one line. Intended.
    split_by_string(text, "\r\n", lines, true);
    for (const std::string& line : lines) {
        std::vector<std::string> pieces;
        split_by_string(line, "=", pieces, true);
        if (pieces.size() < 2)
            continue;
        // Pieces after the second are dropped: a value cannot hold '='.
        out[pieces[0]] = pieces[1];
    }
}

}  // namespace comm
