// Small helpers for checking the integrity family against real tools and
// published vectors.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace tqtest {

// A private directory under /tmp, removed with everything in it.
class TempDir {
public:
    TempDir()
    {
        char tmpl[] = "/tmp/tq-integrity-XXXXXX";
        if (!::mkdtemp(tmpl))
            throw std::runtime_error("mkdtemp failed");
        path_ = tmpl;
    }
    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    std::string operator/(const std::string &name) const { return path_ + "/" + name; }
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

struct ToolRun {
    int status = -1;
    std::string out;
};

// Runs a /bin/sh command line; its standard output and exit status.
inline ToolRun run(const std::string &command)
{
    ToolRun r;
    FILE *p = ::popen(command.c_str(), "re");
    if (!p)
        return r;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0)
        r.out.append(buf, n);
    int st = ::pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

inline void write_bytes(const std::string &path, const std::string &bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline std::string from_hex(const std::string &hex)
{
    std::string out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return out;
}

inline std::string to_hex(const std::string &bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
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

// Rows of a tab-separated file, header dropped.
inline std::vector<std::vector<std::string>> read_tsv(const std::string &path)
{
    std::ifstream in(path);
    std::vector<std::vector<std::string>> rows;
    std::string line;
    bool header = true;
    while (std::getline(in, line)) {
        if (header) {
            header = false;
            continue;
        }
        std::vector<std::string> fields;
        std::stringstream ss(line);
        std::string field;
        while (std::getline(ss, field, '\t'))
            fields.push_back(field);
        if (!line.empty() && line.back() == '\t')
            fields.emplace_back();
        rows.push_back(fields);
    }
    return rows;
}

} // namespace tqtest
