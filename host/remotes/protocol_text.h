// Texts a remote hands out through a caller's buffer: identities, root keys
// and descriptions of error objects.
#ifndef SKARVO_REMOTES_PROTOCOL_TEXT_H_
#define SKARVO_REMOTES_PROTOCOL_TEXT_H_

#include <string>

#include "libfilesystem/aerror.h"

// Copies `text` with its NUL into `buffer` of `length` bytes; copies nothing
// and gives INSUFFICIENT_BUFFER when it does not fit.
AERROR CopyText(const std::string& text, char* buffer, unsigned long length);

// Copies as much of `text` as fits, always ending it with a NUL; gives
// INSUFFICIENT_BUFFER when the text was cut or there is no room at all.
AERROR CopyTextCut(const std::string& text, char* buffer, unsigned long length);

#endif  // SKARVO_REMOTES_PROTOCOL_TEXT_H_
