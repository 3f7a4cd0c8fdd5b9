// Fakes shared by the disk tests: an ATA identify answer for one device node.
#pragma once

#include <linux/hdreg.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>

#include "foundation/os.h"

namespace disktest {

// Makes HDIO_GET_IDENTITY answer model and serial (padded with blanks, as
// drives report them) for descriptors open on a file whose path ends in
// node_suffix; every other descriptor gets ENOTTY.
inline void fake_ata_identity(std::string node_suffix, std::string model, std::string serial)
{
    tq::os::testing::set_ioctl([=](int fd, unsigned long request, void *arg) {
        char link[64], target[PATH_MAX] = {};
        std::snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
        ssize_t n = ::readlink(link, target, sizeof(target) - 1);
        std::string path(target, n > 0 ? static_cast<size_t>(n) : 0);
        bool match = path.size() >= node_suffix.size() &&
                     path.compare(path.size() - node_suffix.size(), node_suffix.size(), node_suffix) == 0;
        if (request != HDIO_GET_IDENTITY || !match) {
            errno = ENOTTY;
            return -1;
        }
        unsigned char *id = static_cast<unsigned char *>(arg);
        std::memset(id, 0, 512);
        std::memset(id + 20, ' ', 20);
        std::memcpy(id + 20, serial.data(), std::min<size_t>(serial.size(), 20));
        std::memset(id + 54, ' ', 40);
        std::memcpy(id + 54, model.data(), std::min<size_t>(model.size(), 40));
        return 0;
    });
}

} // namespace disktest
