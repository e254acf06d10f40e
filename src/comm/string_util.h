// Byte-string helpers used across the library: path pieces, trimming, prefix and
// suffix tests, splitting, number formatting and parsing, a key=value reader.
// None of them logs, locks or throws; "whitespace" is always " \t\r\n".
#ifndef VEXA_COMM_STRING_UTIL_H
#define VEXA_COMM_STRING_UTIL_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace comm {

// True when the directory can be opened (a "/" is appended first when missing).
bool is_dir_exist(const std::string& path);
// mkdir(path, 0600), one level. Mode 0600 (no search bit) is intended.
// False when mkdir fails, an existing directory included.
bool make_dir(const std::string& path);

// Text up to and including the last '/' or '\\'; empty when there is none.
std::string get_dir_part(const std::string& path);
// Text after the last '/' or '\\'; the whole path when there is none.
std::string get_file_name(const std::string& path);

void trim_left(std::string& s);
void trim_right(std::string& s);
void trim(std::string& s);

// False for a null or empty needle.
bool contains(const std::string& s, const char* needle);
// Replaces every occurrence left to right; the search resumes after the
// inserted text. Nothing happens for a null/empty `from`, a null `to` or an empty s.
void replace_all(std::string& s, const char* from, const char* to);

// False when either side is empty or the prefix (suffix) is longer than s.
bool starts_with(const std::string& s, const std::string& prefix);
bool ends_with(const std::string& s, const std::string& suffix);
void strip_prefix(std::string& s, const std::string& prefix);
void strip_suffix(std::string& s, const std::string& suffix);

std::string int_to_string(int32_t value);    // "%d"
std::string int64_to_string(int64_t value);  // "%lld"
std::string double_to_string(double value);  // "%.2f"
int32_t to_int(const std::string& s);        // atoi
int64_t to_int64(const std::string& s);      // atoll
double to_double(const std::string& s);      // atof
bool has_text(const std::string& s);

// "-" sign, "0x"/"0X" hex (non-hex characters skipped), leading "0" octal,
// else decimal. Octal and decimal add (c - '0') for every character without
// validation; the 32-bit magnitude wraps. Intended, see the tests.
int32_t parse_int(const char* text);

// Only a-z / A-Z change.
void to_upper(std::string& s);
void to_lower(std::string& s);

// Both splits append to `out` and never clear it. Empty pieces are kept.
// split_by_char: an empty text adds nothing; a trailing delimiter adds a final
// empty piece. split_by_string: an empty text adds one empty piece.
void split_by_char(const std::string& text, char delimiter, std::vector<std::string>& out,
                   bool trimPieces);
void split_by_string(const std::string& text, const char* delimiter, std::vector<std::string>& out,
                     bool trimPieces);

// Reads "key=value" lines separated by CR LF (a bare LF does not separate).
// Later keys overwrite earlier ones; text after a second '=' is lost.
void parse_key_values(const std::string& text, std::map<std::string, std::string>& out);

}  // namespace comm

#endif  // VEXA_COMM_STRING_UTIL_H
