// SPDX-License-Identifier: LGPL-2.1-or-later
// Shared by the disk tests: a fixture tree checked for leaks, an ATA identify
// answer, device-mapper nodes and libblkid's whole-disk answer.
#pragma once

#include <gtest/gtest.h>
#include <linux/hdreg.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>

#include "foundation/os.h"
#include "support/fixture.h"
#include "support/leak_check.h"
#include "support/results.h"
#include "tavro-quenda.h"

namespace disktest {

using tqtest::or_null;
using tqtest::take;
using Calls = std::vector<std::string>;

// A recorded machine; the test fails if it leaves a descriptor or a child behind.
class Machine : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_TRUE(leaks.clean()); }
    tqtest::Fixture fx;
    tqtest::LeakCheck leaks;
};

inline constexpr char kSmartctl[] = "/usr/sbin/smartctl";
inline constexpr char kDmsetup[] = "/usr/sbin/dmsetup";

// Makes HDIO_GET_IDENTITY answer model and serial (padded with blanks, as
// drives report them) for descriptors open on a file whose path ends in
// node_suffix; every other descriptor gets ENOTTY.
inline void fake_ata_identity(std::string node_suffix, std::string model, std::string serial)
{
    tq::os::testing::set_ioctl([=](int fd, unsigned long request, void *arg) {
        char path[PATH_MAX] = {};
        (void)!::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof(path) - 1);
        if (request != HDIO_GET_IDENTITY || !std::string(path).ends_with(node_suffix)) {
            errno = ENOTTY;
            return -1;
        }
        char *id = static_cast<char *>(arg);
        std::memset(id, 0, 512);
        (serial + std::string(20, ' ')).copy(id + 20, 20);
        (model + std::string(40, ' ')).copy(id + 54, 40);
        return 0;
    });
}

// /dev/mapper/<name> as a link to the block device /dev/<dm>.
inline void mapping(tqtest::Fixture &fx, const std::string &name, const std::string &dm = "dm-0")
{
    fx.block_device("/dev/" + dm);
    fx.symlink("../" + dm, "/dev/mapper/" + name);
}

// libblkid calls only `disk` a whole disk.
inline void whole_disk(std::string disk)
{
    tq::os::testing::set_whole_disk([disk](const char *path) { return disk == path ? 1 : 0; });
}

} // namespace disktest
