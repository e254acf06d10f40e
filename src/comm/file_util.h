// Whole-file helpers on paths. Failures are reported by results only; nothing
// here logs or throws.
#ifndef VEXA_COMM_FILE_UTIL_H
#define VEXA_COMM_FILE_UTIL_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace comm {

bool file_exists(const std::string& path);   // openable for reading
int32_t file_size(const std::string& path);  // stat size, -1 on failure
int32_t stream_size(FILE* stream);           // fstat size, -1 on failure
int file_remove(const std::string& path);    // remove(); 0 on success
// Replaces `out` with the whole file; false (out unchanged) when it cannot be opened
// or read.
bool file_read_all(const std::string& path, std::string& out);
// Reads at most `size` bytes from the start; the count read, 0 when it cannot be opened.
int32_t file_read(const std::string& path, void* buffer, int32_t size);
// Create or truncate, then write; true when the file could be opened.
bool file_write_string(const std::string& path, const std::string& text);
bool file_write(const std::string& path, const void* data, int32_t size);
// True when both files could be opened; the target is untouched when the source cannot.
bool file_copy(const std::string& source, const std::string& target);
// Split at the last '.' of the whole text (a dot in a directory name counts).
std::string file_base_name(const std::string& name);
std::string file_extension(const std::string& name);
// Appends directory + name of every regular file in `directory` (which must end
// with "/"); unsorted, not recursive. Paths longer than 999 bytes are skipped.
void list_files(const std::string& directory, std::vector<std::string>& out);

}  // namespace comm

#endif  // VEXA_COMM_FILE_UTIL_H
