// The configuration text handed to Mount: the --config file's JSON with the
// -o mount options merged into it.
#ifndef SKARVO_CLI_CONFIGURATION_H_
#define SKARVO_CLI_CONFIGURATION_H_

#include <string>

#include "common/status.h"

// Merges the mount options into `text`, a JSON object read from `origin`
// (named in errors), or into an empty object when `text` is empty and
// `origin` too. *json is left empty when there is nothing to hand to Mount.
// Fails, saying why in one line, when the text is not a JSON object or its
// "fuse" member is not one.
Status MergeConfiguration(const std::string& text, const std::string& origin, bool allowOther,
                          std::string* json);

// Reads `configFile` (none when empty) and merges the mount options into it.
Status BuildConfiguration(const std::string& configFile, bool allowOther, std::string* json);

#endif  // SKARVO_CLI_CONFIGURATION_H_
