// SPDX-License-Identifier: LGPL-2.1-or-later
// What every subcommand of the tavro-quenda tool shares: exit statuses,
// messages, option parsing helpers, input files and JSON output.
#pragma once

#include <cjson/cJSON.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string>

namespace cli {

// Exit statuses, as --help and the manual page list them.
enum Status : int {
    kOk = 0,       // success, a good signature, a matching digest
    kNo = 1,       // bad or untrusted signature, mismatch, fact or key not available
    kUsage = 2,    // the command line is wrong
    kSystem = 3,   // input unreadable, output unwritable, key file missing
    kRejected = 4, // input read but not in the form the command needs
};

// "tavro-quenda: CMD: MESSAGE" on standard error; returns status.
int fail(int status, const char *cmd, const char *format, ...) __attribute__((format(printf, 3, 4)));
// The usage error for cmd, with a pointer to its --help.
int usage_error(const char *cmd, const char *format, ...) __attribute__((format(printf, 2, 3)));
// The usage error for an option getopt_long refused: c is what it returned
// ('?' or ':'; option strings start with ':').
int bad_option(const char *cmd, char **argv, int c);

// For a command whose only option is -h/--help: prints help and returns 0 for
// it, a usage error for any other option, or -1 to go on with the operands.
int help_only(const char *cmd, int argc, char **argv, const char *help);
// A usage error unless the operands after the options number least to most;
// missing says what is needed.
int check_operands(const char *cmd, int argc, char **argv, int least, int most, const char *missing);
// How a file named on the command line is named in messages ("-" is standard input).
const char *shown_name(const char *path);

// How JSON is printed: not at all, indented, or on one line.
enum class Json { kNone, kPretty, kShort };
// Parses the argument of -J/--json; false for anything else.
bool parse_json_mode(const char *arg, Json &mode);
// Prints the object on standard output in the given form.
void print_json(const cJSON *root, Json mode);
struct JsonDeleter {
    void operator()(cJSON *p) const noexcept { cJSON_Delete(p); }
};
using JsonPtr = std::unique_ptr<cJSON, JsonDeleter>;

struct FreeDeleter {
    void operator()(void *p) const noexcept { std::free(p); }
};
using CString = std::unique_ptr<char, FreeDeleter>;

// Opens a file named on the command line for reading ("-" is standard input,
// fd 0) without waiting on a device; with wait_for_writer a FIFO waits for its
// writer, as cat does. Sets fd (the caller closes it unless it is 0) and st,
// or prints why not and returns an exit status.
int open_named(const char *cmd, const char *path, int &fd, struct stat &st, bool wait_for_writer);

// A file named on the command line, read whole: "-" is standard input.
// Fails (with its message, naming the file) when the file cannot be opened,
// is a directory or other non-regular non-stream, cannot be read, or holds
// more than max bytes. Returns 0 or an exit status.
int read_whole(const char *cmd, const char *path, size_t max, std::string &out);

// Writes all of data to fd, going on after EINTR and short writes; errno on failure.
bool write_all(int fd, const void *data, size_t size);

// A path the library can open for a file named on the command line. For "-"
// (and, with streams, a named FIFO or socket such as /dev/stdin or <(...))
// the stream is copied to a private temporary file, removed again when this
// object goes. Other files must be regular files of at most max bytes.
class InputPath {
public:
    InputPath() = default;
    ~InputPath();
    InputPath(const InputPath &) = delete;
    InputPath &operator=(const InputPath &) = delete;
    // 0 or an exit status (the message is printed).
    int open(const char *cmd, const char *path, size_t max, bool streams = false);
    const char *path() const { return path_.c_str(); }
    // How to name the file in messages.
    const char *shown() const { return shown_.c_str(); }

private:
    std::string path_, shown_;
    bool temporary_ = false;
};

} // namespace cli
