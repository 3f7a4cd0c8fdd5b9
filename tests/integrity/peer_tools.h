// SPDX-License-Identifier: LGPL-2.1-or-later
// Small helpers for checking the integrity family against real tools and
// published vectors.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

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

inline std::string random_bytes(size_t n, unsigned seed)
{
    std::mt19937 gen(seed);
    std::string out(n, '\0');
    for (char &c : out)
        c = static_cast<char>(gen() & 0xff);
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

} // namespace tqtest
