// Where the WebDAV remote's password comes from. In order:
//   --password-file FILE   the file's first line; the file must be a regular
//                          file that neither the group nor others may read
//                          or write
//   SKARVO_WEBDAV_PASSWORD  the environment variable (which, unlike the
//                          command line, other users cannot see)
//   ~/.netrc               read by libcurl for the host (user and password)
// Passwords never come from the command line, and no message repeats one.
#ifndef SKARVO_REMOTES_WEBDAV_PASSWORD_H_
#define SKARVO_REMOTES_WEBDAV_PASSWORD_H_

#include <string>

#include "common/status.h"

constexpr char kWebdavPasswordVariable[] = "SKARVO_WEBDAV_PASSWORD";

// Fills *password from the file or the environment; leaves it empty for
// ~/.netrc. Fails, saying why in one line, when the file cannot be used.
Status LoadWebdavPassword(const std::string& passwordFile, std::string* password);

#endif  // SKARVO_REMOTES_WEBDAV_PASSWORD_H_
