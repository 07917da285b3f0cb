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
        // use_ino: stat shows each node's serial as its inode number. Without
        // it FUSE numbers names itself and gives a file a new number whenever
        // the kernel forgets and looks it up again, which tools that
        // remember inode numbers (git's index, backup tools) take for a
        // replaced file. A serial lasts as long as the node and is never
        // reused, and every spelling of a case-folded name shows the same
        // number, as it names the same item.
        arguments.insert(arguments.end(),
                         {"-osubtype=skfs", "-ohard_remove", "-obig_writes", "-ouse_ino"});
        if (parameter.allowOther) arguments.push_back("-oallow_other");
    }
    if ((parameter.type & MT_READ_ONLY) != 0) arguments.push_back("-oro");
    return arguments;
}
