#ifndef VORN_CONFIG_CONFIGCHECKER_H
#define VORN_CONFIG_CONFIGCHECKER_H

#include <string>
#include <vector>

#include "core/VornExport.h"

// Checks a configuration file more strictly than the daemon reads it. The daemon's reading
// stays lenient (a member of the wrong type is ignored, an unknown key applies to the service
// named before it); this reports each such thing, with the key's path in the document
// ("/sensor/whitelist/1/func"), and also what only shows at start-up: a HAL library that does
// not load and white-list functions that it does not export.
class VORN_EXPORT ConfigChecker {
public:
    // The file is applied over the built-in configuration, as the daemon applies it. One line
    // per problem, "PATH: what is wrong"; none when the file is clean.
    static std::vector<std::string> Check(const std::string& path);
};

#endif
