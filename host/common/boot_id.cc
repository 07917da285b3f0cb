#include "common/boot_id.h"

#include <fstream>

std::string CurrentBootId() {
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string id;
    if (!std::getline(file, id)) return "";
    return id;
}
