// Whether a file name ends with a given suffix (".map", ".skarvo-part"...).
#ifndef SKARVO_SERVICES_NAME_SUFFIX_H_
#define SKARVO_SERVICES_NAME_SUFFIX_H_

#include <string>

inline bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

#endif  // SKARVO_SERVICES_NAME_SUFFIX_H_
