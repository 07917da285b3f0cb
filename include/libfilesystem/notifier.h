// Change notifications: how the library tells a host that the volume's tree
// changed.
#ifndef LIBFILESYSTEM_NOTIFIER_H_
#define LIBFILESYSTEM_NOTIFIER_H_

// What changed. Values are matched whole, not bit by bit.
enum NOTIFYEVENT : unsigned int {
    NE_RENAMEITEM = 0x1,
    NE_CREATE = 0x2,
    NE_DELETE = 0x4,
    NE_MKDIR = 0x8,
    NE_RMDIR = 0x10,
    NE_DRIVE_REMOVE = 0x80,
    NE_DRIVE_ADD = 0x100,
    NE_UPDATEDIR = 0x1000,
    NE_UPDATEITEM = 0x2000,
    NE_RENAMEFOLDER = 0x20000,
    NE_FREESPACE = 0x40000,
};

// Receives change notifications, set on a file system with
// IFileSystem_V2::SetNotifier; borrowed, never deleted by the library.
//   0  ChangeNotify(event, flags, item1, item2) -> int
//        `item1` is the changed item's path below the mount point as a
//        "\"-separated wide text (const wchar_t*), or null; `item2` is the new
//        path of a rename or move, else null. For NE_DRIVE_REMOVE, `item1` is
//        the drive's letter as a narrow text (const char*). `flags` is 5 for
//        changes to the tree. Called from the library's threads, with tree
//        locks held: it must return quickly and not call back into the file
//        system. Answers 0.
//   1, 2  destructors.
class INotifier {
  public:
    virtual int ChangeNotify(NOTIFYEVENT event, unsigned int flags, const void* item1,
                             const void* item2) = 0;
    virtual ~INotifier() = default;
};

#endif  // LIBFILESYSTEM_NOTIFIER_H_
