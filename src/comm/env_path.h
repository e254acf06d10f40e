// Settings from the process environment and the directories derived from them.
// Nothing is cached: every call reads the environment again. Directory results
// end with "/" or are empty.
#ifndef VEXA_COMM_ENV_PATH_H
#define VEXA_COMM_ENV_PATH_H

#include <cstdint>
#include <string>

namespace comm {

// "" when unset.
std::string env_get_string(const char* name);
// Unset or empty: the default. "0": false. Any other text: true.
bool env_get_bool(const char* name, bool defaultValue);
// Unset or empty: the default. Otherwise atoi of the text.
int32_t env_get_int(const char* name, int32_t defaultValue);
double env_get_double(const char* name, double defaultValue);
// setenv with overwrite; true on success.
bool env_set(const char* name, const char* value);

std::string get_exe_path();       // QZ_EXEPATH, else the directory of /proc/self/exe
std::string get_work_path();      // QZ_WORKPATH, else ""
std::string get_ini_path();       // QZ_INIPATH, else get_exe_path()
std::string get_resource_path();  // QZ_RESOURCEPATH, else get_ini_path()
std::string get_log_path();       // QZ_LOGPATH, else "/mnt/sdcard/vexa/"

// Pseudo-random number in [0, n); the raw rand() value for n == 0.
int32_t random_below(int32_t n);

// Joins arguments that a shell split inside double quotes and keeps the
// arguments from the first one starting with "-". The new vector and each of its
// strings are allocated with new[]; a null pointer follows the last argument.
// Release it with release_args. outArgc 0 and outArgv null when none starts with "-".
void regroup_quoted_args(int argc, const char* const* argv, int* outArgc, char*** outArgv);
void release_args(int argc, char** argv);

}  // namespace comm

#endif  // VEXA_COMM_ENV_PATH_H
