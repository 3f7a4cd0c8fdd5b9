// SPDX-License-Identifier: LGPL-2.1-or-later
// A recorded machine for the library to read: a directory tree that the OS
// gateway treats as "/", fake helper programs that print recorded output and
// log how they were called, and fake block devices.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tqtest {

// Path of a file under tests/data/corpus, the recorded outputs of real machines.
std::string corpus(std::string_view relative);
// Whole content of a host file ("" when it cannot be read).
std::string read_file(const std::string &host_path);

class Fixture {
public:
    // Creates an empty tree under /tmp and makes it the library's "/".
    Fixture();
    // Restores the real system (root, kernel-call fakes, PATH) and removes the tree.
    ~Fixture();
    Fixture(const Fixture &) = delete;
    Fixture &operator=(const Fixture &) = delete;

    const std::string &root() const { return root_; }
    // The host path of an absolute path inside the fixture.
    std::string host(std::string_view path) const;

    // Writes a file (parents are created), e.g. write("/proc/mounts", "...").
    void write(std::string_view path, std::string_view content, unsigned mode = 0644);
    void copy(std::string_view path, const std::string &host_source);
    void mkdir(std::string_view path);
    void symlink(std::string_view target, std::string_view link);
    // A regular file that the library's stat() reports as a block device.
    void block_device(std::string_view path);

    // A fake program at path (an absolute fixture path such as
    // "/usr/sbin/smartctl") that logs its arguments, prints stdout_text and
    // exits with exit_code.
    void program(std::string_view path, std::string_view stdout_text, int exit_code = 0);
    // A program at path with the given /bin/sh body (after the logging line).
    void script(std::string_view path, std::string_view body);
    // A fake program found through PATH (e.g. "lsblk"); PATH is restored later.
    void path_program(std::string_view name, std::string_view stdout_text, int exit_code = 0);
    void path_script(std::string_view name, std::string_view body);
    // One line per call of the program at path (or PATH name): its arguments, joined by blanks.
    std::vector<std::string> calls(std::string_view path_or_name) const;

    // Content of a fixture file, and of the fixture's trace log.
    std::string read(std::string_view path) const;
    std::string trace_log() const;

private:
    std::string log_of(std::string_view path) const;
    // A logging script at path whose calls are logged under the name logged_as.
    void install_script(std::string_view path, std::string_view logged_as, std::string_view body);
    // Stores what a fake prints at output_path; the script body that prints it.
    std::string replay(const std::string &output_path, std::string_view stdout_text, int exit_code);

    std::string root_;
    std::set<std::string> block_devices_;
    std::optional<std::string> saved_path_; // PATH before path_script() changed it
};

} // namespace tqtest
