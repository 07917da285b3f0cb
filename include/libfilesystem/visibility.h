// Symbol visibility for the library's exported interface.
//
// The library is built with hidden visibility by default; only declarations
// marked LIBFS_API are exported from libfilesystem.so.
#ifndef LIBFILESYSTEM_VISIBILITY_H_
#define LIBFILESYSTEM_VISIBILITY_H_

#if defined(_WIN32)
#define LIBFS_API
#else
#define LIBFS_API __attribute__((visibility("default")))
#endif

#endif  // LIBFILESYSTEM_VISIBILITY_H_
