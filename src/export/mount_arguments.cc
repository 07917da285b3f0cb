#include "export/mount_arguments.h"

std::vector<std::string> BuildMountArguments(const MountParameter& parameter,
                                             MountPlatform platform) {
    std::vector<std::string> arguments = {"skarvo", parameter.mountPoint, "-ofsname=skfs"};
    if (platform == MountPlatform::kMacOS) {
        arguments.insert(arguments.end(), {"-olocal", "-onoappledouble",
                                           "-omodules=iconv,from_code=UTF-8,to_code=UTF-8-MAC",
                                           "-odaemon_timeout=60", "-ofstypename=skfs",
                                           "-ohard_remove", "-ovolname=" + parameter.volumeName});
    } else {
        // The volume shows in /proc/mounts as type fuse.skfs. Writes come in
        // pieces of up to 128 KiB instead of 4 KiB.
        //
        // Inode numbers: FUSE numbers each name itself (no use_ino), and the
        // nodes' serials in st_ino are not shown. The tree folds case, so two
        // spellings of a name are one node; with the serial as inode number
        // they would show one inode, and mv refuses to rename a file onto
        // itself, so a case-only rename ("mv a.txt A.TXT") could not be made.
        //
        // No hard_remove: a file unlinked while open is renamed to a hidden
        // name (and the library deletes the remote item then), so that it
        // keeps a path and fstat(2) of it still works.
        arguments.insert(arguments.end(), {"-osubtype=skfs", "-obig_writes"});
        if (parameter.allowOther) arguments.push_back("-oallow_other");
    }
    if ((parameter.type & MT_READ_ONLY) != 0) arguments.push_back("-oro");
    return arguments;
}
