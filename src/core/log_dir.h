// Directory of the endpoints' log files and marker files.
//
// The fixed "/mnt/sdcard/vexa/" unless VEXA_LOG_DIR names another directory;
// it is read each time an endpoint is made, so a host may point each endpoint
// somewhere else, and the programs it launches inherit the setting.
#ifndef VEXA_CORE_LOG_DIR_H
#define VEXA_CORE_LOG_DIR_H

#include <string>

namespace vexa {

// The directory, ending with "/". A VEXA_LOG_DIR without the final "/" gets
// one (unlike the QZ_ paths, which keep only what comes before their last "/").
std::string endpoint_log_dir();
// Makes the directory when it is missing: the default one level deep, as it
// always has been; one from VEXA_LOG_DIR with its parents (mode 0755).
void make_endpoint_log_dir(const std::string& dir);

}  // namespace vexa

#endif  // VEXA_CORE_LOG_DIR_H
