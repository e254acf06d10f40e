// The string helpers on texts taken from the input, which is cut at its NUL
// bytes: the text, then a delimiter (its first byte is also the delimiter
// character), then the `from` and `to` of replace_all. A missing delimiter
// or replacement text is null (':' as the delimiter character).
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "comm/string_util.h"
#include "fuzz_support.h"

namespace {

const char kWhitespace[] = " \t\r\n";

bool is_space(char c) {
    return c != '\0' && std::string(kWhitespace).find(c) != std::string::npos;
}

bool trimmed(const std::string& s) {
    return s.empty() || (!is_space(s.front()) && !is_space(s.back()));
}

std::string join(const std::vector<std::string>& pieces, size_t first, const std::string& glue) {
    std::string out;
    for (size_t i = first; i < pieces.size(); ++i) {
        if (i > first) {
            out += glue;
        }
        out += pieces[i];
    }
    return out;
}

std::string trim_copy(std::string s) {
    comm::trim(s);
    return s;
}

void check_parse_int(const std::string& text) {
    const uint32_t value = static_cast<uint32_t>(comm::parse_int(text.c_str()));
    if (text.empty() || text[0] != '-') {
        // A leading '-' negates, with the same 32-bit wrap.
        const std::string negated = "-" + text;
        FUZZ_CHECK(static_cast<uint32_t>(comm::parse_int(negated.c_str())) == 0u - value);
    }
    const bool hex = text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    if (hex) {
        // Characters that are not hexadecimal digits count for nothing.
        std::string digits = "0x";
        for (size_t i = 2; i < text.size(); ++i) {
            if (std::isxdigit(static_cast<unsigned char>(text[i]))) {
                digits += text[i];
            }
        }
        FUZZ_CHECK(static_cast<uint32_t>(comm::parse_int(digits.c_str())) == value);
    } else if (text.size() >= 2 && text[0] != '-') {
        // Octal after a leading '0', else decimal: every byte adds (c - '0'),
        // digit or not, so the last byte extends the value of the others.
        const uint32_t base = text[0] == '0' ? 8 : 10;
        const std::string head = text.substr(0, text.size() - 1);
        const uint32_t headValue = static_cast<uint32_t>(comm::parse_int(head.c_str()));
        const uint32_t last = static_cast<unsigned char>(text.back());
        FUZZ_CHECK(value == headValue * base + (last - '0'));
    }
    bool plain = !text.empty() && text.size() <= 9 && text[0] >= '1' && text[0] <= '9';
    for (char c : text) {
        plain = plain && c >= '0' && c <= '9';
    }
    if (plain) {
        FUZZ_CHECK(value == static_cast<uint32_t>(std::strtol(text.c_str(), nullptr, 10)));
    }
}

void check_split_by_char(const std::string& text, char delimiter) {
    std::vector<std::string> pieces{"kept"};
    comm::split_by_char(text, delimiter, pieces, false);
    FUZZ_CHECK(pieces[0] == "kept");
    if (text.empty()) {
        FUZZ_CHECK(pieces.size() == 1);
    } else {
        size_t delimiters = 0;
        for (char c : text) {
            delimiters += c == delimiter ? 1 : 0;
        }
        FUZZ_CHECK(pieces.size() == 1 + delimiters + 1);
        FUZZ_CHECK(join(pieces, 1, std::string(1, delimiter)) == text);
    }
    std::vector<std::string> trimmedPieces;
    comm::split_by_char(text, delimiter, trimmedPieces, true);
    FUZZ_CHECK(trimmedPieces.size() + 1 == pieces.size());
    for (size_t i = 0; i < trimmedPieces.size(); ++i) {
        FUZZ_CHECK(trimmedPieces[i] == trim_copy(pieces[i + 1]));
    }
}

void check_split_by_string(const std::string& text, const std::string* delimiter) {
    const char* delim = delimiter != nullptr ? delimiter->c_str() : nullptr;
    std::vector<std::string> pieces{"kept"};
    comm::split_by_string(text, delim, pieces, false);
    FUZZ_CHECK(pieces[0] == "kept");
    FUZZ_CHECK(pieces.size() >= 2);
    if (delimiter == nullptr || delimiter->empty()) {
        FUZZ_CHECK(pieces.size() == 2 && pieces[1] == text);
    } else {
        FUZZ_CHECK(join(pieces, 1, *delimiter) == text);
        // Leftmost matches: no piece holds the delimiter.
        for (size_t i = 1; i < pieces.size(); ++i) {
            FUZZ_CHECK(pieces[i].find(*delimiter) == std::string::npos);
        }
    }
    std::vector<std::string> trimmedPieces;
    comm::split_by_string(text, delim, trimmedPieces, true);
    FUZZ_CHECK(trimmedPieces.size() + 1 == pieces.size());
    for (size_t i = 0; i < trimmedPieces.size(); ++i) {
        FUZZ_CHECK(trimmedPieces[i] == trim_copy(pieces[i + 1]));
    }
}

void check_parse_key_values(const std::string& text) {
    std::map<std::string, std::string> values;
    comm::parse_key_values(text, values);
    std::string again;
    for (const auto& entry : values) {
        FUZZ_CHECK(entry.first.find('=') == std::string::npos);
        FUZZ_CHECK(entry.second.find('=') == std::string::npos);
        FUZZ_CHECK(trimmed(entry.first) && trimmed(entry.second));
        FUZZ_CHECK(entry.first.find("\r\n") == std::string::npos);
        FUZZ_CHECK(entry.second.find("\r\n") == std::string::npos);
        again += entry.first + "=" + entry.second + "\r\n";
    }
    // What was read is read back the same when written out as CR LF lines.
    std::map<std::string, std::string> reread;
    comm::parse_key_values(again, reread);
    FUZZ_CHECK(reread == values);
}

void check_replace_all(const std::string& text, const std::string* from, const std::string* to) {
    std::string replaced = text;
    comm::replace_all(replaced, from != nullptr ? from->c_str() : nullptr,
                      to != nullptr ? to->c_str() : nullptr);
    if (from == nullptr || from->empty() || to == nullptr || text.empty()) {
        FUZZ_CHECK(replaced == text);
        return;
    }
    // Left to right over the original text; replacements are never rescanned.
    std::string expected;
    std::string::size_type start = 0;
    std::string::size_type pos;
    while ((pos = text.find(*from, start)) != std::string::npos) {
        expected += text.substr(start, pos - start) + *to;
        start = pos + from->size();
    }
    expected += text.substr(start);
    FUZZ_CHECK(replaced == expected);
}

void check_trim(const std::string& text) {
    std::string both = text;
    std::string left = text;
    std::string right = text;
    comm::trim(both);
    comm::trim_left(left);
    comm::trim_right(right);
    FUZZ_CHECK(trimmed(both));
    FUZZ_CHECK(left.empty() || !is_space(left.front()));
    FUZZ_CHECK(right.empty() || !is_space(right.back()));
    // Only whitespace at the ends is removed.
    const std::string::size_type first = text.find_first_not_of(kWhitespace);
    if (first == std::string::npos) {
        FUZZ_CHECK(both.empty() && left.empty() && right.empty());
    } else {
        const std::string::size_type last = text.find_last_not_of(kWhitespace);
        FUZZ_CHECK(left == text.substr(first));
        FUZZ_CHECK(right == text.substr(0, last + 1));
        FUZZ_CHECK(both == text.substr(first, last + 1 - first));
    }
}

void check_path_parts(const std::string& text) {
    const std::string dir = comm::get_dir_part(text);
    const std::string name = comm::get_file_name(text);
    FUZZ_CHECK(dir + name == text);
    FUZZ_CHECK(name.find_first_of("/\\") == std::string::npos);
    FUZZ_CHECK(dir.empty() || dir.back() == '/' || dir.back() == '\\');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<std::string> fields = vexa_fuzz::split_at_nul(data, size);
    auto field = [&](size_t i) { return i < fields.size() ? &fields[i] : nullptr; };
    const std::string text = fields.empty() ? std::string() : fields[0];
    const std::string* delimiter = field(1);
    const char delimiterChar = delimiter != nullptr && !delimiter->empty() ? (*delimiter)[0] : ':';

    check_parse_int(text);
    check_split_by_char(text, delimiterChar);
    check_split_by_string(text, delimiter);
    check_parse_key_values(text);
    check_replace_all(text, field(2), field(3));
    check_trim(text);
    check_path_parts(text);
    return 0;
}
