// Which boot of the machine this is, to tell after a restart of skarvo
// whether the machine restarted too.
#ifndef SKARVO_COMMON_BOOT_ID_H_
#define SKARVO_COMMON_BOOT_ID_H_

#include <string>

// The kernel's id of the current boot, which changes with every start of
// the machine; "" where there is none (outside Linux).
std::string CurrentBootId();

#endif  // SKARVO_COMMON_BOOT_ID_H_
