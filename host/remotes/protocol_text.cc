#include "remotes/protocol_text.h"

#include <algorithm>
#include <cstring>

AERROR CopyText(const std::string& text, char* buffer, unsigned long length) {
    if (buffer == nullptr || length <= text.size()) return INSUFFICIENT_BUFFER;
    memcpy(buffer, text.c_str(), text.size() + 1);
    return SUCCESS;
}

AERROR CopyTextCut(const std::string& text, char* buffer, unsigned long length) {
    if (buffer == nullptr || length == 0) return INSUFFICIENT_BUFFER;
    const size_t count = std::min<size_t>(text.size(), length - 1);
    memcpy(buffer, text.data(), count);
    buffer[count] = '\0';
    return count < text.size() ? INSUFFICIENT_BUFFER : SUCCESS;
}
