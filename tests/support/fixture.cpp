// SPDX-License-Identifier: LGPL-2.1-or-later
#include "fixture.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "foundation/os.h"
#include "results.h"

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
    if (saved_path_)
        ::setenv("PATH", saved_path_->c_str(), 1);
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

void Fixture::copy(std::string_view path, const std::string &host_source) { write(path, read_file(host_source)); }

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
    std::replace(name.begin(), name.end(), '/', '_');
    return root_ + "/.fake-calls/" + name + ".log";
}

void Fixture::install_script(std::string_view path, std::string_view logged_as, std::string_view body)
{
    fs::create_directories(root_ + "/.fake-calls");
    write(path, "#!/bin/sh\nprintf '%s\\n' \"$*\" >> '" + log_of(logged_as) + "'\n" + std::string(body) + "\n", 0755);
}

std::string Fixture::replay(const std::string &output_path, std::string_view stdout_text, int exit_code)
{
    write(output_path, stdout_text);
    return "cat '" + host(output_path) + "'\nexit " + std::to_string(exit_code);
}

void Fixture::script(std::string_view path, std::string_view body) { install_script(path, path, body); }

void Fixture::program(std::string_view path, std::string_view stdout_text, int exit_code)
{
    script(path, replay("/.fake-output" + std::string(path), stdout_text, exit_code));
}

void Fixture::path_script(std::string_view name, std::string_view body)
{
    if (!saved_path_) {
        const char *old = ::getenv("PATH");
        saved_path_ = old ? old : "/usr/bin:/bin";
        ::setenv("PATH", (root_ + "/.fake-path:" + *saved_path_).c_str(), 1);
    }
    install_script("/.fake-path/" + std::string(name), name, body);
}

void Fixture::path_program(std::string_view name, std::string_view stdout_text, int exit_code)
{
    path_script(name, replay("/.fake-output/path-" + std::string(name), stdout_text, exit_code));
}

std::vector<std::string> Fixture::calls(std::string_view path_or_name) const
{
    return lines_of(read_file(log_of(path_or_name)));
}

std::string Fixture::read(std::string_view path) const { return read_file(host(path)); }

std::string Fixture::trace_log() const { return read("/var/log/tavro-quenda/libtavro-quenda.log"); }

} // namespace tqtest
