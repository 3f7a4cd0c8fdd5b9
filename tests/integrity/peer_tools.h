// SPDX-License-Identifier: LGPL-2.1-or-later
// Shared set-up of the integrity tests: the headers every one of them needs, and
// helpers for checking against real tools, published vectors and hostile files.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "bounded_call.h"
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

inline std::string from_hex(const std::string &hex)
{
    std::string out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
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

// Rows of a tab-separated file, header dropped; a trailing tab ends an empty field.
inline std::vector<std::vector<std::string>> read_tsv(const std::string &path)
{
    std::ifstream in(path);
    std::vector<std::vector<std::string>> rows;
    std::string line;
    std::getline(in, line);
    while (std::getline(in, line)) {
        std::vector<std::string> &fields = rows.emplace_back();
        std::stringstream ss(line);
        for (std::string field; std::getline(ss, field, '\t');)
            fields.push_back(field);
        if (!line.empty() && line.back() == '\t')
            fields.emplace_back();
    }
    return rows;
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

using PathCall = std::function<std::string(const std::string &)>;

// Makes a FIFO, /dev/zero and a huge sparse file as dir/fifo, dir/zero and
// dir/huge (once), and hands them to call: it must answer `refused` for the
// first two without waiting, and `huge` for the last (unless that is null)
// without taking it into memory.
inline void expect_hostile_files(Fixture &fx, const std::string &dir, const std::string &what, const PathCall &call,
                                 const std::string &refused, const char *huge)
{
    if (!std::filesystem::exists(std::filesystem::symlink_status(fx.host(dir + "/zero")))) {
        ASSERT_TRUE(make_fifo_and_zero(fx.host(dir + "/fifo"), fx.host(dir + "/zero")) &&
                    make_sparse(fx.host(dir + "/huge"), kHugeFile));
    }
    for (const std::string name : {"/fifo", "/zero", "/huge"}) {
        if (name == "/huge" && !huge)
            continue;
        const BoundedCall got = bounded_call([&] { return call(dir + name); }, name == "/huge" ? 60 : 10);
        EXPECT_EQ(name == "/huge" ? huge : refused, got.answer) << what << " " << name;
        EXPECT_TRUE(within_memory_bound(got.grown_kib)) << what << " " << name;
    }
}

} // namespace tqtest
