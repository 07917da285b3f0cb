#include "fs/open_flags.h"

#include <fcntl.h>

namespace {

struct FlagName {
    int bit;
    const char* name;
};

// The platform's own constants: the numbers differ between systems, and
// flags a system lacks are left out.
constexpr FlagName kFlagNames[] = {
    {O_WRONLY, "O_WRONLY"},     {O_RDWR, "O_RDWR"},   {O_NONBLOCK, "O_NONBLOCK"},
    {O_APPEND, "O_APPEND"},     {O_CREAT, "O_CREAT"}, {O_TRUNC, "O_TRUNC"},
    {O_EXCL, "O_EXCL"},
#ifdef O_SHLOCK
    {O_SHLOCK, "O_SHLOCK"},
#endif
#ifdef O_EXLOCK
    {O_EXLOCK, "O_EXLOCK"},
#endif
    {O_NOFOLLOW, "O_NOFOLLOW"},
#ifdef O_SYMLINK
    {O_SYMLINK, "O_SYMLINK"},
#endif
#ifdef O_EVTONLY
    {O_EVTONLY, "O_EVTONLY"},
#endif
    {O_CLOEXEC, "O_CLOEXEC"},
};

}  // namespace

std::string OpenFlagsText(int flags) {
    std::string text = "O_RDONLY";
    for (const auto& flag : kFlagNames) {
        if ((flags & flag.bit) != 0) {
            text += ", ";
            text += flag.name;
        }
    }
    return text;
}
