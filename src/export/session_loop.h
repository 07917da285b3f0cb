#ifndef LIBFS_EXPORT_SESSION_LOOP_H_
#define LIBFS_EXPORT_SESSION_LOOP_H_

#include <fuse_lowlevel.h>

// Serves `session` until it exits (the kernel ended the connection, or the
// volume was destroyed), with worker threads added while all are busy and
// let go while more than ten are idle, as libfuse's own multi-threaded loop
// does. Unlike that loop, it runs FORGET messages through a ForgetGate.
// Returns 0, or -1 when reading the device failed.
int ServeSession(fuse_session* session);

#endif  // LIBFS_EXPORT_SESSION_LOOP_H_
