// SPDX-License-Identifier: LGPL-2.1-or-later
#include "fixture.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "foundation/os.h"

namespace fs = std::filesystem;

namespace tqtest {

std::string corpus(std::string_view relative) { return std::string(TQ_CORPUS_DIR) + "/" + std::string(relative); }

std::string read_file(const std::string &host_path)
{
    std::ifstream in(host_path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

Fixture::Fixture()
{
    char tmpl[] = "/tmp/tq-fixture-XXXXXX";
    if (!::mkdtemp(tmpl))
        throw std::runtime_error("mkdtemp failed");
    root_ = tmpl;
    fs::create_directories(root_ + "/var/log"); // as on any real system
    tq::os::testing::set_root(root_);
    tq::os::testing::set_block_devices(
        [this](const char *host_path) { return block_devices_.count(host_path) != 0; });
}

Fixture::~Fixture()
{
    tq::os::testing::reset();
    if (path_changed_)
        ::setenv("PATH", saved_path_.c_str(), 1);
    std::error_code ignored;
    fs::remove_all(root_, ignored);
}

std::string Fixture::host(std::string_view path) const { return root_ + std::string(path); }

void Fixture::write(std::string_view path, std::string_view content, unsigned mode)
{
    std::string h = host(path);
    fs::create_directories(fs::path(h).parent_path());
    {
        std::ofstream out(h, std::ios::binary | std::ios::trunc);
        out.write(content.data(), static_cast<std::streamsize>(content.size()));
        if (!out)
            throw std::runtime_error("cannot write " + h);
    }
    ::chmod(h.c_str(), mode);
}

void Fixture::copy(std::string_view path, const std::string &host_source)
{
    write(path, read_file(host_source));
}

void Fixture::mkdir(std::string_view path) { fs::create_directories(host(path)); }

void Fixture::symlink(std::string_view target, std::string_view link)
{
    std::string h = host(link);
    fs::create_directories(fs::path(h).parent_path());
    fs::create_symlink(std::string(target), h);
}

void Fixture::block_device(std::string_view path)
{
    if (!fs::exists(host(path)))
        write(path, "");
    block_devices_.insert(fs::canonical(host(path)).string());
}

std::string Fixture::log_of(std::string_view path) const
{
    std::string name(path);
    for (char &c : name) {
        if (c == '/')
            c = '_';
    }
    return root_ + "/.fake-calls/" + name + ".log";
}

void Fixture::install_script(const std::string &host_path, const std::string &log, std::string_view body)
{
    fs::create_directories(fs::path(log).parent_path());
    std::string text = "#!/bin/sh\nprintf '%s\\n' \"$*\" >> '" + log + "'\n" + std::string(body) + "\n";
    fs::create_directories(fs::path(host_path).parent_path());
    std::ofstream(host_path, std::ios::trunc) << text;
    ::chmod(host_path.c_str(), 0755);
}

void Fixture::script(std::string_view path, std::string_view body)
{
    install_script(host(path), log_of(path), body);
}

void Fixture::program(std::string_view path, std::string_view stdout_text, int exit_code)
{
    std::string out = root_ + "/.fake-output/" + std::string(path);
    fs::create_directories(fs::path(out).parent_path());
    std::ofstream(out, std::ios::binary | std::ios::trunc) << stdout_text;
    script(path, "cat '" + out + "'\nexit " + std::to_string(exit_code));
}

void Fixture::ensure_path_dir()
{
    if (path_changed_)
        return;
    const char *old = ::getenv("PATH");
    saved_path_ = old ? old : "/usr/bin:/bin";
    fs::create_directories(root_ + "/.fake-path");
    ::setenv("PATH", (root_ + "/.fake-path:" + saved_path_).c_str(), 1);
    path_changed_ = true;
}

void Fixture::path_script(std::string_view name, std::string_view body)
{
    ensure_path_dir();
    install_script(root_ + "/.fake-path/" + std::string(name), log_of(name), body);
}

void Fixture::path_program(std::string_view name, std::string_view stdout_text, int exit_code)
{
    std::string out = root_ + "/.fake-output/path-" + std::string(name);
    fs::create_directories(fs::path(out).parent_path());
    std::ofstream(out, std::ios::binary | std::ios::trunc) << stdout_text;
    path_script(name, "cat '" + out + "'\nexit " + std::to_string(exit_code));
}

std::vector<std::string> Fixture::calls(std::string_view path_or_name) const
{
    std::vector<std::string> lines;
    std::ifstream in(log_of(path_or_name));
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::string Fixture::read(std::string_view path) const { return read_file(host(path)); }

std::string Fixture::trace_log() const { return read("/var/log/tavro-quenda/libtavro-quenda.log"); }

} // namespace tqtest
