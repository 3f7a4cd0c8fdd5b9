// SPDX-License-Identifier: LGPL-2.1-or-later
// Shared set-up of the integrity tests: the headers every one of them needs, and
// helpers for checking against real tools and published vectors.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "fixture.h"
#include "leak_check.h"
#include "results.h"
#include "tavro-quenda.h"

namespace tqtest {

// Runs a /bin/sh command line and returns its standard output; a non-zero
// exit status fails the test.
inline std::string run(const std::string &command)
{
    std::string out;
    FILE *p = ::popen(command.c_str(), "re");
    if (!p) {
        ADD_FAILURE() << "cannot run " << command;
        return out;
    }
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;)
        out.append(buf, n);
    int st = ::pclose(p);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << command;
    return out;
}

// Random bytes; printable ones (no NUL) when text is set.
inline std::string random_bytes(size_t n, unsigned seed, bool text = false)
{
    std::mt19937 gen(seed);
    std::string out(n, '\0');
    for (char &c : out)
        c = static_cast<char>(text ? '!' + gen() % 90 : gen() & 0xff);
    return out;
}

// A heap copy of exactly the bytes given (a string's NUL included), so that
// AddressSanitizer sees any read beyond them.
template <typename T = char> std::unique_ptr<T[]> exact_copy(const std::string &bytes, size_t size)
{
    std::unique_ptr<T[]> copy(new T[size]);
    std::memcpy(copy.get(), bytes.data(), size);
    return copy;
}
inline std::unique_ptr<char[]> exact_copy(const std::string &text) { return exact_copy(text, text.size() + 1); }

} // namespace tqtest
