// SPDX-License-Identifier: LGPL-2.1-or-later
// Set-up shared by the platform tests: a fake /usr/sbin/dmidecode that replays
// a dmidecode report recorded on a real machine, so that the library reads
// what that machine printed.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "fixture.h"
#include "leak_check.h"
#include "results.h"
#include "tavro-quenda.h"

namespace tqtest {

// Installs /usr/sbin/dmidecode replaying corpus("dmidecode/" + report): "-t 1"
// prints the header and the type 1 record, "-s system-manufacturer" and
// "-s system-uuid" that record's field; without_s pretends to be a dmidecode
// without -s. Calls are logged as for every fake.
void fake_dmidecode(Fixture &fixture, const std::string &report, bool without_s = false);

// A test that must leave no descriptor or child behind.
class LeakCheckedTest : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_TRUE(leaks.clean()); }
    LeakCheck leaks;
};

} // namespace tqtest
