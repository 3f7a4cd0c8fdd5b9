// SPDX-License-Identifier: LGPL-2.1-or-later
// Checks that a call left nothing behind: no descriptor, no child process, no
// temporary file.
#pragma once

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace tqtest {

class LeakCheck {
public:
    // Takes a snapshot of this process's descriptors and of the entries of
    // /tmp whose names begin with one of temp_prefixes. /tmp is shared with
    // tests running in parallel: only tests that hold a lock on the names
    // they watch should pass prefixes (see gnupg_temp_prefixes()).
    explicit LeakCheck(std::vector<std::string> temp_prefixes = {});

    // Success when nothing new is open, no child process of this process is
    // left (running or unreaped), and no new matching /tmp entry exists.
    ::testing::AssertionResult clean() const;

private:
    std::set<std::string> temp_entries() const;

    std::vector<std::string> prefixes_;
    std::set<int> fds_;
    std::set<std::string> temps_;
};

// The temporary names of the library's GnuPG verifications.
inline std::vector<std::string> gnupg_temp_prefixes() { return {"gpgdir-", "pubkey_"}; }

} // namespace tqtest
